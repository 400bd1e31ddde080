#include "agent/OrderedRunner.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "platform/tables/CorruptionException.h"
#include "platform/trace/Trace.h"

namespace Agent {

namespace {

TARN_TRACE_SOURCE(traceSource, "agent/OrderedRunner");

using TarnRegFile::Sable::OpIndex;

/// How long the loop is kept from everything else.
constexpr std::chrono::milliseconds turnTime{10};

constexpr const char* takenBack = "it was taken back";
constexpr const char* contradictory = "it says {} writes, and has {} registers and {} values";

} // namespace

OrderedRunner::OrderedRunner(Platform::EventLoop& loop, TarnRegFile::Ptr<Config> config,
                             TarnRegFile::Ptr<Status> status, std::size_t kept, Counters& counters,
                             Handlers handlers)
   : _config(std::move(config)), _status(std::move(status)), _kept(kept),
     _handlers(std::move(handlers)), _counters(counters),
     _turn(loop, [this] { _guarded([this] { _startNext(); }); }),
     _subscription(
        Platform::subscribe(*_config, Config::opAttr, [this](const Platform::Change& change) {
           _guarded([&] { _noticed(change.key.as<Key>()); });
        })) {
   _scan();
}

OrderedRunner::~OrderedRunner() = default;

/// What goes wrong with the tables is the agent's to mend.
template <typename Work>
void OrderedRunner::_guarded(const Work& work) {
   try {
      work();
   } catch (const Platform::Tables::CorruptionException& error) {
      _handlers.troubled(error.what());
   } catch (const std::system_error& error) {
      _handlers.troubled(error.what());
   }
}

// The tables' entities end the process over a write that meets damage, so each is looked into
// first.

void OrderedRunner::_statusIs(const Op& op) {
   _status->op().checkWrite(op.key());
   _status->opIs(op);
}

void OrderedRunner::_statusDel(Key key) {
   _status->op().checkWrite(key);
   _status->opDel(key);
}

void OrderedRunner::_configDel(Key key) {
   _config->op().checkWrite(key);
   _config->opDel(key);
}

void OrderedRunner::_scan() {
   std::vector<Key> outcomes = _status->op().keys();
   std::sort(outcomes.begin(), outcomes.end());
   for (const Key key : outcomes) {
      _keep(key);
   }
   std::vector<Key> asked = _config->op().keys();
   std::sort(asked.begin(), asked.end());
   for (const Key key : asked) {
      _noticed(key);
   }
}

void OrderedRunner::_noticed(Key key) {
   if (_current && _current->key() == key) {
      return;
   }
   if (!_config->op().has(key)) {
      // Taken back. It is not kept until it would have had its turn, which may be long.
      if (_queued.erase(key) != 0) {
         std::erase(_queue, key);
         if (!_current) {
            _handlers.idle(); // what waited for it waits no more
         }
      }
      return;
   }
   if (_queued.contains(key)) {
      return;
   }
   if (_status->op().has(key)) {
      // Claimed before: by an agent that died over it, or it was asked for again.
      TARN_TRACE(traceSource, 1, "noticed", "{}: operation {} was begun before and is not repeated",
                 _config->name(), key.stringRep());
      _configDel(key);
      return;
   }
   _queue.push_back(key);
   _queued.insert(key);
   go();
}

void OrderedRunner::go() {
   if (!_current && !_queue.empty()) {
      _turn.startIn({});
   }
}

void OrderedRunner::_startNext() {
   if (_current) {
      _step();
      return;
   }
   if (_queue.empty() || !_handlers.canStart()) {
      return;
   }
   const Key key = _queue.front();
   _queue.pop_front();
   _queued.erase(key);
   const std::optional<Op> op = _config->op().get(key);
   if (!op) {
      _handlers.idle(); // taken back before it was begun; what waited for it waits no more
      go();
      return;
   }
   if (op->key() != key) {
      TARN_TRACE(traceSource, 0, "start", "{}: the record of operation {} is that of {}; removed",
                 _config->name(), key.stringRep(), op->key().stringRep());
      _configDel(key);
      _handlers.idle();
      go();
      return;
   }
   _done = Op(key);
   _done.opSizeIs(op->opSize());
   _statusIs(_done); // from here on it never begins again
   _current = op;
   _index = 0;
   _counters.operations.Inc();
   if (op->opSize() != op->regKeyCount() || op->opSize() != op->regValueCount()) {
      _end(fmt::format(contradictory, op->opSize(), op->regKeyCount(), op->regValueCount()));
      return;
   }
   _step();
}

/// Makes one write after the other as long as their results come at once, and it does not take
/// too long.
void OrderedRunner::_step() {
   if (std::exchange(_isStepping, true)) {
      return;
   }
   const auto end = std::chrono::steady_clock::now() + turnTime;
   while (_current && !_isWriting) {
      if (std::chrono::steady_clock::now() >= end) {
         _turn.startIn({});
         break;
      }
      if (_index == _current->opSize()) {
         _end(std::nullopt);
         break;
      }
      // Whoever took it back when it was just being begun may count on nothing having been written.
      if (!_config->op().has(_current->key())) {
         _end(takenBack);
         break;
      }
      const OpIndex index(static_cast<std::uint8_t>(_index));
      _isWriting = true;
      const std::optional<std::string> refusal =
         _handlers.write(_current->regKey(index).address(), _current->regValue(index));
      if (refusal) {
         _isWriting = false;
         _end(refusal);
         break;
      }
   }
   _isStepping = false;
}

void OrderedRunner::result(bool isSuccess, const std::string& reason) {
   if (!_current || !_isWriting) {
      return;
   }
   if (!isSuccess) {
      _isWriting = false;
      _end(reason);
      return;
   }
   const OpIndex index(static_cast<std::uint8_t>(_index));
   _done.regKeyIs(index, _current->regKey(index));
   _done.regValueIs(index, _current->regValue(index));
   ++_index;
   _counters.writes.Inc();
   // First: where the agent dies in between, an older wish must not undo what is told as written.
   _handlers.written(_done.regKey(index).address(), _done.regValue(index));
   _statusIs(_done);
   _isWriting = false; // not before: after trouble with a table nothing more is written
   _step();
}

void OrderedRunner::abandon(const std::string& reason) {
   if (_current) {
      _isWriting = false;
      _end(reason);
   }
}

void OrderedRunner::_end(const std::optional<std::string>& reason) {
   const Op op = *std::exchange(_current, std::nullopt);
   if (reason) {
      _counters.incomplete.Inc();
      const std::string text = fmt::format("operation {} stopped after {} of {} writes: {}",
                                           op.key().stringRep(), _index, op.opSize(), *reason);
      TARN_TRACE(traceSource, 0, "end", "{}: {}", _config->name(), text);
      _handlers.stopped(text);
   }
   _configDel(op.key());
   _keep(op.key());
   _handlers.idle();
   go();
}

void OrderedRunner::_keep(Key key) {
   _ended.push_back(key);
   while (_ended.size() > _kept) {
      // Not what is still asked for: only the status says that it was begun.
      if (!_config->op().has(_ended.front())) {
         _statusDel(_ended.front());
      }
      _ended.pop_front();
   }
}

} // namespace Agent
