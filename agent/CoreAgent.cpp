#include "agent/CoreAgent.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "platform/tables/CorruptionException.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/SableCore.h"

namespace Agent {

namespace {

TARN_TRACE_SOURCE(traceSource, "agent/CoreAgent");

using Platform::Tables::TableRole;
using TarnRegFile::Ptr;
using TarnRegFile::String;
using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::Generation;

constexpr const char* noRegisters = "core '{}' has no registers";
constexpr const char* unusable = "{}: cannot use the device: register '{}': {}";
constexpr const char* unreachable = "{}: cannot use the device: {}";
constexpr const char* lost = "{}: lost the device: register '{}': {}";
constexpr const char* failed = "{}: register '{}': {}";
constexpr const char* foreign =
   "{}: address {:#x} is configured, but no register has it; the entry is removed";

/// Progress is shown no more often.
constexpr std::chrono::milliseconds showTime{100};

template <typename Clock>
std::uint64_t microsOf(typename Clock::time_point time) {
   return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count());
}

std::uint64_t wallNow() {
   return microsOf<std::chrono::system_clock>(std::chrono::system_clock::now());
}

std::uint64_t monotonicNow() {
   return microsOf<std::chrono::steady_clock>(std::chrono::steady_clock::now());
}

/// Sets a flag as long as it lives.
class Flag {
public:
   explicit Flag(bool& flag) : _flag(flag), _before(std::exchange(flag, true)) {}
   ~Flag() { _flag = _before; }
   Flag(const Flag&) = delete;
   Flag& operator=(const Flag&) = delete;

private:
   bool& _flag;
   const bool _before;
};

} // namespace

CoreAgent::CoreAgent(Platform::EventLoop& loop, Platform::Tables::TableService& tables,
                     Hardware hardware, const Settings& settings,
                     Platform::Metrics::Registry& registry)
   : _loop(loop), _service(tables), _hardware(std::move(hardware)), _settings(settings),
     _syncTime({1'000, 10'000, 100'000, 1'000'000, 10'000'000, 100'000'000}, 1'000'000),
     _tables(_tablesOf(_hardware.name)), _retryDelay(settings.retryFirst),
     _retry(loop, [this] { _probe(); }),
     _failing(loop,
              [this] {
                 if (_failure) {
                    _fail(*std::exchange(_failure, std::nullopt));
                 }
              }),
     _checking(loop, [this] { _check(); }), _regular(loop, [this] { _check(); }),
     _answer(loop, [this] {
        _fail({"", fmt::format("no answer in {} ms", _settings.answerTimeout.count())});
     }) {
   // A model without hardware, to learn which name stands for which address.
   std::vector<std::pair<std::uint32_t, String>> known;
   _hardware.registers->forEachRegister(
      [&](const String& regName, const TarnRegFile::HardwareRegister& record) {
         const String* name = _hardware.registers->findName(record.address);
         if (_addresses.insert(record.address).second) {
            known.emplace_back(record.address, name ? *name : regName);
         }
      });
   if (known.empty()) {
      throw std::runtime_error(fmt::format(noRegisters, name()));
   }
   std::sort(known.begin(), known.end());
   for (const auto& [address, regName] : known) {
      _regNames.push_back(regName);
   }
   try {
      _mount();
   } catch (...) {
      _unmount();
      throw;
   }
   const OrderedRunner::Counters& ordered = _runner->counters();
   _registration = registry.registrationNew(
      {{"shadowd_generations_total", "Valid generations begun", &_counters.generations},
       {"shadowd_failed_probes_total", "Probes after which the device could not be used",
        &_counters.failedProbes},
       {"shadowd_losses_total", "Times that a device in use was lost", &_counters.losses},
       {"shadowd_errors_total", "Accesses that failed", &_counters.errors},
       {"shadowd_refused_addresses_total", "Configured addresses that no register has",
        &_counters.refused},
       {"shadowd_ordered_operations_total", "Ordered operations begun", &ordered.operations},
       {"shadowd_ordered_incomplete_total", "Ordered operations that stopped before their end",
        &ordered.incomplete},
       {"shadowd_ordered_writes_total", "Writes of ordered operations that succeeded",
        &ordered.writes},
       {"shadowd_sync_seconds", "Time that filling the shadow registers took", &_syncTime}},
      {{"core", name()}});
   _retry.startIn({});
}

CoreAgent::~CoreAgent() {
   try {
      _endGeneration();
      _dropCore();
      _prober.reset();
      _phaseIs(Phase::stopped);
   } catch (const std::exception& error) {
      TARN_TRACE(traceSource, 0, "stop", "{}: {}", name(), error.what());
   }
   _unmount();
}

// -- tables --------------------------------------------------------------------------------------

CoreAgent::Tables CoreAgent::_tablesOf(const std::string& name) {
   using namespace TarnRegFile::Sable;
   return {shadowRegisterConfigFactory(name + "/config"),
           shadowRegisterStatusFactory(name + "/status"),
           orderedRegisterConfigFactory(name + "/ops"),
           orderedRegisterStatusFactory(name + "/ops-status"),
           shadowRegisterConfigFactory(name + "/request"),
           {}};
}

Ptr<CoreAgent::Control> CoreAgent::_control(TableRole role) {
   auto control = Platform::Tables::collectionControlFactory(_service, {.role = role});
   _tables.controls.push_back(control);
   return control;
}

void CoreAgent::_mount() {
   // The first one makes the directory that the lock is in; anybody may mount it.
   _tables.config->regMapControlIs(_control(TableRole::writer));
   _tables.controls.back()->mount();
   _lock = std::make_unique<OwnerLock>(_service.directory(), name());
   _tables.status->regMapControlIs(_control(TableRole::writer));
   _tables.controls.back()->mount();
   _tables.ops->opControlIs(_control(TableRole::writer));
   _tables.controls.back()->mount();
   _tables.opsStatus->opControlIs(_control(TableRole::writer));
   _tables.controls.back()->mount();
   _tables.request->regMapControlIs(_control(TableRole::writer));
   _tables.controls.back()->mount();
   _stateTable = std::make_unique<StateTable>(_service, name() + "/state");

   // What an agent before this one has left says nothing of the hardware as it is now.
   _tables.status->regMapDelAll();
   _state.pid = static_cast<std::uint32_t>(::getpid());
   _state.registersTotal = static_cast<std::uint32_t>(_regNames.size());
   if (const auto request = _tables.request->regMap().get(Key(0))) {
      _state.lastRequest = request->value();
   }
   _phaseIs(Phase::starting);
   _lock->serve(); // not before: what an agent before this one said last is none of its

   using TarnRegFile::Sable::ShadowRegisterConfig;
   using TarnRegFile::Sable::ShadowRegisterStatus;
   _subscriptions.push_back(Platform::subscribe(
      *_tables.config, ShadowRegisterConfig::regMapAttr,
      [this](const Platform::Change& change) { _configChanged(change.key.as<Key>()); }));
   _subscriptions.push_back(
      Platform::subscribe(*_tables.status, ShadowRegisterStatus::regMapAttr,
                          [this](const Platform::Change&) { _statusChanged(); }));
   _subscriptions.push_back(Platform::subscribe(*_tables.request, ShadowRegisterConfig::regMapAttr,
                                                [this](const Platform::Change&) { _requested(); }));
   _runner = std::make_unique<OrderedRunner>(
      _loop, _tables.ops, _tables.opsStatus, _settings.keptOperations,
      OrderedRunner::Handlers{
         .canStart = [this] { return _core && _core->ready() && !_failure && _inFlight == 0; },
         .write = [this](std::uint32_t address,
                         std::uint32_t value) { return _orderedWrite(address, value); },
         .written = [this](std::uint32_t address,
                           std::uint32_t value) { _orderedWritten(address, value); },
         .stopped =
            [this](const std::string& text) {
               _state.lastErrorIs(text);
               _show();
            },
         .idle = [this] { _applyHeldBack(); }});
}

void CoreAgent::_unmount() noexcept {
   _subscriptions.clear();
   _runner.reset();
   _stateTable.reset();
   for (const Ptr<Control>& control : _tables.controls) {
      control->unmount();
   }
   _lock.reset(); // only now may another agent begin
}

// -- generations ---------------------------------------------------------------------------------

void CoreAgent::renew() {
   _endGeneration();
   _retryDelay = _settings.retryFirst;
   _retry.startIn({});
}

void CoreAgent::_probe() {
   _prober.reset();
   _dropCore();
   _progress(0);
   _phaseIs(Phase::probing);
   try {
      auto transport = TarnRegFile::transportMethodFactory(name());
      transport->fullInit(_hardware.descriptor(),
                          TarnRegFile::TransportMethodRegFile(_hardware.registers));
      _prober = std::make_unique<Probe>(
         _loop, transport, _regNames, _settings.answerTimeout,
         Probe::Handlers{
            .done = [this](const Failure* failure) { _probed(failure); },
            .progress = [this](std::size_t read) { _progress(read); },
            .reason = [this](const std::string& regName) { return _reason(regName); }});
   } catch (const std::exception& error) {
      const Failure failure{"", error.what()};
      _probed(&failure);
   }
}

void CoreAgent::_probed(const Failure* failure) {
   _prober.reset();
   if (failure) {
      _counters.failedProbes.Inc();
      if (!failure->regName.empty()) {
         _counters.errors.Inc();
         ++_state.errors;
      }
      _fail(*failure);
      return;
   }
   try {
      _begin();
   } catch (const Platform::Tables::CorruptionException&) {
      throw; // not the device's
   } catch (const std::exception& error) {
      _fail({"", error.what()});
   }
}

/// The device is there: a new valid generation.
void CoreAgent::_begin() {
   _refuseForeign();
   _model =
      TarnRegFile::Sable::sableCoreFactory(name(), _hardware.registers, _hardware.descriptor());
   _model->generationIs({_state.generation, false});
   _core = Platform::make<ShadowCore>(_model, _tables.config, _tables.status,
                                      [this](bool ready) { _ready(ready); });
   _generation = Platform::subscribe(*_core, ShadowCore::hwGenerationAttr,
                                     [this](const Platform::Change&) { _tapTransport(); });
   _progress(0);
   ++_state.generation;
   _state.valid = true;
   _syncBegan = std::chrono::steady_clock::now();
   _counters.generations.Inc();
   _phaseIs(Phase::syncing);
   _answer.startIn(_settings.answerTimeout);
   _model->generationIs({_state.generation, true});
   _core->handleGeneration();
}

/// Between the making of a transport and its first read.
void CoreAgent::_tapTransport() {
   const Ptr<TarnRegFile::TransportMethod> transport = _core->transport();
   if (!_core->hwGeneration().valid || !transport) {
      return;
   }
   _tap = tapNew(
      *transport,
      [this](const String& regName, auto result, std::uint32_t value) {
         _readResult(regName, result, value);
      },
      [this](const String& regName, auto result) { _writeResult(regName, result); });
}

void CoreAgent::_ready(bool ready) {
   _state.ready = ready;
   if (!ready) {
      return;
   }
   _answer.cancel();
   const auto took = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - _syncBegan);
   _state.syncMicros = static_cast<std::uint64_t>(std::max<std::int64_t>(took.count(), 1));
   _syncTime.observe(_state.syncMicros);
   _retryDelay = _settings.retryFirst;
   TARN_TRACE(traceSource, 1, "ready", "{}: generation {} is ready, {} registers in {} us", name(),
              _state.generation, _state.registersTotal, _state.syncMicros);
   _phaseIs(Phase::ready);
   if (_settings.checkInterval.count() > 0) {
      _regular.startEvery(_settings.checkInterval);
   }
   _runner->go();
}

/// The device cannot be used, or not any more.
void CoreAgent::_fail(const Failure& failure) {
   const bool wasReady = _state.ready;
   const std::string text = failure.regName.empty()
                               ? fmt::format(unreachable, name(), failure.reason)
                               : fmt::format(fmt::runtime(wasReady ? lost : unusable), name(),
                                             failure.regName, failure.reason);
   TARN_TRACE(traceSource, 0, "fail", "{}; trying again in {} ms", text, _retryDelay.count());
   _state.lastErrorIs(text);
   if (wasReady) {
      _counters.losses.Inc();
      ++_state.losses;
   }
   _endGeneration();
   _phaseIs(Phase::waiting);
   _retry.startIn(_retryDelay);
   _retryDelay = std::min(_retryDelay * 2, _settings.retryMost);
}

/// Nothing is heard of the generation's transport any more.
void CoreAgent::_endGeneration() {
   _prober.reset();
   _retry.cancel();
   _failing.cancel();
   _checking.cancel();
   _regular.cancel();
   _answer.cancel();
   _failure.reset();
   _suspect.reset();
   _isChecking = false;
   _inFlight = 0;
   if (_tap) {
      _tap->close();
      _tap.reset();
   }
   _state.valid = false;
   if (_model && _model->generation().valid) {
      _model->generationIs({_state.generation, false});
      _core->handleGeneration();
   }
   _state.ready = false;
   if (_runner) {
      _runner->abandon("the generation has ended");
   }
}

void CoreAgent::_dropCore() {
   _generation = {};
   if (_core) {
      _core->teardown();
      _core.reset();
   }
   _model.reset();
}

// -- results -------------------------------------------------------------------------------------

void CoreAgent::_readResult(const std::string& regName, ResultTap::Result result,
                            std::uint32_t value) {
   if (result != ResultTap::Result::Success) {
      _accessFailed(regName, _reason(regName), true);
      return;
   }
   _accessed();
   if (_failure) {
      return;
   }
   if (_state.ready) {
      _isChecking = false;
      _answer.cancel();
      if (_suspect == regName) {
         _suspect.reset();
      }
   } else {
      _progress(_state.registersRead + 1);
      _answer.startIn(_settings.answerTimeout);
      if (_state.registersRead >= _state.registersTotal) {
         _refuseForeign(); // the state machine is about to look at all of the configuration
      }
   }
   _isOwnStatus = true; // until the status has the value
   const Flag issuing(_isIssuing);
   _core->asyncHelper()->handleReadResult(regName, result, value);
   _isOwnStatus = false;
}

void CoreAgent::_writeResult(const std::string& regName, ResultTap::Result result) {
   const bool isSuccess = result == ResultTap::Result::Success;
   const std::string reason = isSuccess ? std::string() : _reason(regName);
   if (isSuccess) {
      _accessed();
   } else {
      _accessFailed(regName, reason, false);
   }
   if (_runner->busy()) {
      _runner->result(isSuccess, fmt::format("register '{}': {}", regName, reason));
      return;
   }
   if (_isIssuing) {
      _isSettled = true;
   } else if (_inFlight > 0 && --_inFlight == 0) {
      _runner->go();
   }
}

void CoreAgent::_accessFailed(const std::string& regName, const std::string& reason, bool isRead) {
   _counters.errors.Inc();
   ++_state.errors;
   if (_failure) {
      return;
   }
   const bool isAgain = isRead && _isChecking && _suspect == regName;
   if (isRead && _isChecking) {
      _isChecking = false;
      _answer.cancel();
   }
   if (_state.ready && !isAgain) {
      // Perhaps only this once.
      _state.lastErrorIs(fmt::format(failed, name(), regName, reason));
      _show();
      if (!_suspect) {
         _suspect = regName;
      }
      _checking.startIn({});
      return;
   }
   _failure = Failure{regName, reason};
   if (!_state.ready) {
      _core->transportDel(); // which ends the reads of a synchronous one
   }
   _failing.startIn({});
}

/// Reads the suspect, or, if there is none, the first register.
void CoreAgent::_check() {
   if (!_core || !_core->ready() || _failure || _isChecking) {
      return;
   }
   _isChecking = true;
   _answer.startIn(_settings.answerTimeout);
   const std::string regName = _suspect.value_or(_regNames.front());
   const Ptr<TarnRegFile::TransportMethod> transport = _core->transport();
   transport->regRead(regName);
}

void CoreAgent::_accessed() {
   _state.accessWall = wallNow();
   _state.accessMonotonic = monotonicNow();
   _progress(_state.registersRead); // also while what is configured is written
}

std::string CoreAgent::_reason(const std::string& regName) const {
   const std::string reason = _hardware.reason ? _hardware.reason(regName) : std::string();
   return reason.empty() ? "the access failed" : reason;
}

// -- configuration -------------------------------------------------------------------------------

void CoreAgent::_requested() {
   const auto request = _tables.request->regMap().get(Key(0));
   if (!request || request->value() == _state.lastRequest) {
      return;
   }
   _state.lastRequest = request->value();
   TARN_TRACE(traceSource, 1, "requested", "{}: a new generation is asked for", name());
   renew();
}

bool CoreAgent::_isOfCore(Key key) {
   if (_addresses.contains(key.address())) {
      return true;
   }
   // The state machine would end the process over it, and the next one again.
   if (_tables.config->regMap().has(key)) {
      const std::string text = fmt::format(foreign, name(), key.address());
      TARN_TRACE(traceSource, 0, "config", "{}", text);
      _counters.refused.Inc();
      _state.lastErrorIs(text);
      _show();
      _tables.config->regMapDel(key);
   }
   return false;
}

void CoreAgent::_refuseForeign() {
   for (const Key& key : _tables.config->regMap().keys()) {
      _isOfCore(key);
   }
}

void CoreAgent::_configChanged(Key key) {
   if (!_isOfCore(key) || !_core || _failure) {
      return;
   }
   if (_runner->busy() || _runner->wantsToStart()) {
      _heldBack.insert(key.address());
   } else {
      _apply(key);
   }
}

void CoreAgent::_apply(Key key) {
   const Ptr<ShadowCore> core = _core;
   const Flag issuing(_isIssuing);
   core->handleShadowRegister(key);
}

void CoreAgent::_applyHeldBack() {
   // An operation that waits for its turn waits for these as well.
   for (const std::uint32_t address : std::exchange(_heldBack, {})) {
      if (_core && _core->ready() && !_failure) {
         _apply(Key(address));
      }
   }
}

/// Counts the writes of the state machine, which enters each into the status.
void CoreAgent::_statusChanged() {
   if (std::exchange(_isOwnStatus, false) || !_core || !_core->ready()) {
      return;
   }
   const Ptr<TarnRegFile::TransportMethod>& transport = _core->transport();
   if (!std::exchange(_isSettled, false) && transport && transport->isAsync()) {
      ++_inFlight;
   }
}

// -- ordered operations --------------------------------------------------------------------------

std::optional<std::string> CoreAgent::_orderedWrite(std::uint32_t address, std::uint32_t value) {
   const String regName = _core->regAddrToNameGet(address);
   const auto* descriptor = _model->findRegisterDesc(regName);
   if (!descriptor) {
      return fmt::format("no register has the address {:#x}", address);
   }
   if (descriptor->notWritable) {
      return fmt::format("register '{}' is not writable", regName);
   }
   const Ptr<TarnRegFile::TransportMethod> transport = _core->transport();
   transport->regWrite(regName, value);
   return std::nullopt;
}

void CoreAgent::_orderedWritten(std::uint32_t address, std::uint32_t value) {
   const CoreRegister record(Key(address), value);
   _isOwnStatus = true;
   _tables.status->regMapIs(record);
   _isOwnStatus = false;
   // What is wanted and what was ordered last are not to contradict each other.
   if (const auto wanted = _tables.config->regMap().get(record.key());
       wanted && *wanted != record) {
      _tables.config->regMapIs(record);
   }
}

// -- state ---------------------------------------------------------------------------------------

void CoreAgent::_phaseIs(Phase phase) {
   _state.phase = phase;
   _state.changedWall = wallNow();
   _state.changedMonotonic = monotonicNow();
   _show();
}

void CoreAgent::_progress(std::size_t read) {
   _state.registersRead = static_cast<std::uint32_t>(read);
   if (std::chrono::steady_clock::now() - _shown >= showTime) {
      _show();
      if (_hardware.alive) {
         _hardware.alive();
      }
   }
}

void CoreAgent::_show() {
   _shown = std::chrono::steady_clock::now();
   if (_stateTable) {
      _stateTable->stateIs(_state);
   }
}

} // namespace Agent
