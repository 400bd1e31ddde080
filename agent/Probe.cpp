#include "agent/Probe.h"

#include <utility>

#include <fmt/format.h>

namespace Agent {

namespace {

/// How long the loop is kept from everything else.
constexpr std::chrono::milliseconds turnTime{10};
constexpr std::size_t mostInFlight = 64;

} // namespace

Probe::Probe(Platform::EventLoop& loop, TarnRegFile::Ptr<TarnRegFile::TransportMethod> transport,
             std::vector<std::string> regNames, std::chrono::milliseconds answerTimeout,
             Handlers handlers)
   : _transport(std::move(transport)), _regNames(std::move(regNames)),
     _answerTimeout(answerTimeout), _handlers(std::move(handlers)),
     _turn(loop, [this] { _issue(); }), _answer(loop, [this] {
        _end({_regNames[_read], fmt::format("no answer in {} ms", _answerTimeout.count())});
     }) {
   _tap = tapNew(
      *_transport,
      [this](const auto& regName, auto result, std::uint32_t value) {
         _result(regName, result == ResultTap::Result::Success, value);
      },
      [](const auto&, auto) {});
   _turn.startIn({});
}

Probe::~Probe() {
   _tap->close();
}

void Probe::_issue() {
   if (_isFailed || _read == _regNames.size()) {
      _finish();
      return;
   }
   const bool isAsync = _transport->isAsync();
   const auto end = std::chrono::steady_clock::now() + turnTime;
   while (_issued < _regNames.size() && !_isFailed) {
      if (isAsync && _issued - _read >= mostInFlight) {
         break;
      }
      _transport->regRead(_regNames[_issued++]);
      if (std::chrono::steady_clock::now() >= end) {
         _turn.startIn({});
         break;
      }
   }
   if (isAsync && !_isFailed && _read < _issued && !_answer.active()) {
      _answer.startIn(_answerTimeout);
   }
}

void Probe::_result(const std::string& regName, bool isSuccess, std::uint32_t value) {
   if (_isFailed) {
      return;
   }
   if (!isSuccess) {
      _end({regName, _handlers.reason(regName)});
      return;
   }
   ++_read;
   _handlers.read(regName, value, _read);
   if (_answer.active()) {
      _answer.startIn(_answerTimeout);
   }
   // Never from in here: the transport is still at work.
   if (_read == _regNames.size() || _transport->isAsync()) {
      _turn.startIn({});
   }
}

void Probe::_end(Failure failure) {
   _isFailed = true;
   _failure = std::move(failure);
   _answer.cancel();
   _turn.startIn({});
}

void Probe::_finish() {
   _tap->close();
   _answer.cancel();
   const Failure failure = _failure;
   const auto done = _handlers.done; // destroys this
   done(_isFailed ? &failure : nullptr);
}

} // namespace Agent
