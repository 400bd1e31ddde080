#include "agent/CoreAgent.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <span>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/tables/CorruptionException.h"
#include "platform/tables/Table.h"
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
constexpr const char* misplaced =
   "{}: the entry of address {:#x} is one of address {:#x}; it is removed";
constexpr const char* replacedTable = "{}: table '{}' was damaged ({}) and is made anew: {}; {}";
constexpr const char* finishedTable =
   "{}: the replacement of table '{}' was interrupted; {} records are added to what it has";
constexpr const char* cannotUse = "{}: cannot use a table: {}";
constexpr const char* onesByBus = "it reads all ones, and the device is not on its bus";
constexpr const char* onesByAll = "it reads all ones, and so does every other register";

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

/// Whether these bytes are a record of that type, under its key.
template <typename R>
bool isRecord(std::span<const std::uint8_t> key, std::span<const std::uint8_t> record) {
   using Key = typename Platform::Tables::Table<R>::Key;
   std::vector<std::uint8_t> bytes(record.begin(), record.end());
   if (key.size() != Key::serializedLen || bytes.size() > R::maxSerializedLen) {
      return false;
   }
   bytes.resize(R::maxSerializedLen);
   try {
      R read;
      if (R::deserializeLen(bytes.data(), record.size()) == 0) {
         return false;
      }
      read.deserialize(bytes.data(), record.size());
      return read.key() == Key::deserialized(key.data());
   } catch (const Platform::RangeError&) {
      return false;
   }
}

template <typename R>
void checkRecords(const Platform::Tables::Table<R>& table) {
   for (const auto& key : table.keys()) {
      static_cast<void>(table.get(key));
   }
}

/// Throws if something is wrong with a mounted table.
void checkTable(const Platform::Tables::TableBase& table) {
   const auto found = table.tableMount()->audit();
   if (!found.problems.empty()) {
      throw Platform::Tables::CorruptionException(
         fmt::format("shared table '{}' is corrupted: {}", table.name(), found.problems.front()));
   }
}

/// Whether a table may do later what it does not do now: another process that writes it stands
/// still, or there is no room.
bool mayPass(const std::error_code& code) {
   return code == std::errc::timed_out || code == std::errc::no_space_on_device ||
          code == std::errc::no_buffer_space;
}

/// Counts calls under way.
class Depth {
public:
   explicit Depth(unsigned& depth) : _depth(depth) { ++_depth; }
   ~Depth() { --_depth; }
   Depth(const Depth&) = delete;
   Depth& operator=(const Depth&) = delete;

private:
   unsigned& _depth;
};

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
     _access(tables.directory(), settings.access), _tables(_tablesOf(_hardware.name)),
     _retryDelay(settings.retryFirst), _retry(loop, [this] { _guarded([this] { _probe(); }); }),
     _failing(loop,
              [this] {
                 if (_failure) {
                    _guarded([this] { _fail(*std::exchange(_failure, std::nullopt)); });
                 }
              }),
     _checking(loop, [this] { _guarded([this] { _check(); }); }),
     _regular(loop, [this] { _guarded([this] { _check(); }); }),
     _answer(loop,
             [this] {
                _guarded([this] {
                   _fail({"", fmt::format("no answer in {} ms", _settings.answerTimeout.count())});
                });
             }),
     _repairing(loop, [this] { _repair(); }),
     _auditing(loop, [this] { _guarded([this] { _audit(); }); }) {
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
   _declare();
   try {
      _access.applyToDirectory();
      // Before anything is touched: another agent's tables are not to be mended.
      _lock = std::make_unique<OwnerLock>(_service.directory(), name());
      _access.applyToLock(Platform::Tables::TableDirectory::fileName(name() + "/owner") + ".lock");
      try {
         _mount();
      } catch (const std::system_error& error) {
         if (!mayPass(error.code())) {
            throw;
         }
         // The other cores have nothing to do with it.
         _unmount();
         _troubled(error.what());
      }
   } catch (...) {
      _unmount();
      _lock.reset();
      throw;
   }
   _registration = registry.registrationNew(
      {{"shadowd_generations_total", "Valid generations begun", &_counters.generations},
       {"shadowd_failed_probes_total", "Probes after which the device could not be used",
        &_counters.failedProbes},
       {"shadowd_losses_total", "Times that a device in use was lost", &_counters.losses},
       {"shadowd_errors_total", "Accesses that failed", &_counters.errors},
       {"shadowd_refused_addresses_total", "Configured addresses that no register has",
        &_counters.refused},
       {"shadowd_replaced_tables_total", "Damaged tables that were made anew", &_counters.replaced},
       {"shadowd_lost_records_total", "Records of clients and operations lost to damage",
        &_counters.lostRecords},
       {"shadowd_ordered_operations_total", "Ordered operations begun", &_ordered.operations},
       {"shadowd_ordered_incomplete_total", "Ordered operations that stopped before their end",
        &_ordered.incomplete},
       {"shadowd_ordered_writes_total", "Writes of ordered operations that succeeded",
        &_ordered.writes},
       {"shadowd_sync_seconds", "Time that filling the shadow registers took", &_syncTime}},
      {{"core", name()}});
   if (!_trouble) {
      _retry.startIn({});
   }
   if (_settings.auditInterval.count() > 0) {
      _auditing.startEvery(_settings.auditInterval);
   }
}

CoreAgent::~CoreAgent() {
   // Whatever fails of it, the rest is done.
   const auto attempt = [this](const auto& work) {
      try {
         work();
      } catch (const std::exception& error) {
         TARN_TRACE(traceSource, 0, "stop", "{}: {}", name(), error.what());
      }
   };
   if (_trouble) {
      _runner.reset(); // which would write
   }
   attempt([this] { _endGeneration(); });
   attempt([this] { _dropCore(); });
   _prober.reset();
   _state.ready = false;
   _state.valid = false;
   attempt([this] { _phaseIs(Phase::stopped); });
   _unmount();
   _lock.reset(); // only now may another agent begin
}

// -- tables --------------------------------------------------------------------------------------

CoreAgent::Tables CoreAgent::_tablesOf(const std::string& name) {
   using namespace TarnRegFile::Sable;
   return {shadowRegisterConfigFactory(name + "/config"),
           shadowRegisterStatusFactory(name + "/status"),
           orderedRegisterConfigFactory(name + "/ops"),
           orderedRegisterStatusFactory(name + "/ops-status"),
           shadowRegisterConfigFactory(name + "/request")};
}

void CoreAgent::_declare() {
   using Kind = TableAccess::Kind;
   using TarnRegFile::Sable::OrderedRegisterOp;
   const auto add = [this](Kind kind, const auto& table, DamagedTable::IsRecord isRecordOf) {
      auto control = Platform::Tables::collectionControlFactory(_service, _access.options(kind));
      _mounts.push_back(
         {kind, &table, control, std::move(isRecordOf), [&table] { checkRecords(table); }});
      return control;
   };
   _tables.config->regMapControlIs(
      add(Kind::wishes, _tables.config->regMap(), isRecord<CoreRegister>));
   _tables.status->regMapControlIs(add(Kind::reports, _tables.status->regMap(), {}));
   _tables.ops->opControlIs(add(Kind::wishes, _tables.ops->op(), isRecord<OrderedRegisterOp>));
   _tables.opsStatus->opControlIs(
      add(Kind::reports, _tables.opsStatus->op(), isRecord<OrderedRegisterOp>));
   _tables.request->regMapControlIs(
      add(Kind::wishes, _tables.request->regMap(), isRecord<CoreRegister>));
}

void CoreAgent::_mount() {
   {
      const Flag mounting(_isMounting);
      for (const Mount& mount : _mounts) {
         _mountOne(mount);
      }
      _mountState();
   }
   if (_claimsLost) {
      _claimAll();
   }
   // Not before: an agent that ended earlier would leave it to none to make these claims.
   DamagedTable(_service.directory(), _tables.opsStatus->op().name()).settle();

   // What an agent before this one has left says nothing of the hardware as it is now. Each removal
   // is looked into first: the table may have been damaged since it was mounted.
   for (const Key& key : _tables.status->regMap().keys()) {
      _tables.status->regMap().checkWrite(key);
      _tables.status->regMapDel(key);
   }
   _state.pid = static_cast<std::uint32_t>(::getpid());
   _state.registersTotal = static_cast<std::uint32_t>(_regNames.size());
   if (const auto request = _tables.request->regMap().get(Key(0))) {
      _state.lastRequest = request->value();
   }
   _phaseIs(Phase::starting);
   _lock->serve(); // not before: what an agent before this one said last is none of its
   _subscribe();
}

/// Mounts a table, in the place of a damaged one if need be.
void CoreAgent::_mountOne(const Mount& mount) {
   const std::string tableName = mount.table->name();
   const bool isClaims = mount.table == &_tables.opsStatus->op();
   const auto again = [&](const std::string& problem) {
      mount.control->unmount();
      const bool before = _claimsLost;
      _claimsLost = _claimsLost || isClaims; // should making the new one fail
      const auto outcome =
         _replace(tableName, mount.table->shape(), mount.kind, mount.isRecord, problem);
      if (isClaims) {
         _claimsLost = before || outcome.lost > 0 || !outcome.isKnown;
      }
      mount.control->mount();
   };
   try {
      if (mount.isRecord && _finishReplacement(mount)) {
         _claimsLost = _claimsLost || isClaims;
      }
      mount.control->mount();
      mount.check();
   } catch (const Platform::Tables::CorruptionException& error) {
      again(error.what());
   } catch (const std::system_error& error) {
      // One that an agent of another user made, and nobody but it writes.
      if (mount.kind != TableAccess::Kind::reports ||
          error.code() != std::errc::permission_denied) {
         throw;
      }
      again(error.what());
   }
   if (mount.isRecord && !isClaims) {
      DamagedTable(_service.directory(), tableName).settle();
   }
   _access.applyToTable(tableName, mount.kind);
}

/// Whether there was one that an agent which was killed had begun.
bool CoreAgent::_finishReplacement(const Mount& mount) {
   const DamagedTable table(_service.directory(), mount.table->name());
   if (!table.isInterrupted()) {
      return false;
   }
   const DamagedTable::Outcome outcome =
      table.finish(mount.table->shape(), _access.options(mount.kind), mount.isRecord);
   const std::string text = fmt::format(finishedTable, name(), mount.table->name(), outcome.kept);
   TARN_TRACE(traceSource, 0, "replace", "{}", text);
   _state.lastErrorIs(text);
   return true;
}

void CoreAgent::_mountState() {
   const std::string tableName = name() + "/state";
   constexpr auto kind = TableAccess::Kind::reports;
   _stateTable.reset();
   const auto make = [&] {
      _stateTable = std::make_unique<StateTable>(_service, tableName, _access.options(kind));
   };
   try {
      make();
   } catch (const Platform::Tables::CorruptionException& error) {
      _replace(tableName, StateTable::shape(), kind, {}, error.what());
      make();
   } catch (const std::system_error& error) {
      if (error.code() != std::errc::permission_denied) {
         throw;
      }
      _replace(tableName, StateTable::shape(), kind, {}, error.what());
      make();
   }
   _access.applyToTable(tableName, kind);
}

DamagedTable::Outcome CoreAgent::_replace(const std::string& tableName,
                                          const Platform::Tables::TableShape& shape,
                                          TableAccess::Kind kind,
                                          const DamagedTable::IsRecord& isRecordOf,
                                          const std::string& problem) {
   DamagedTable::Outcome outcome = DamagedTable(_service.directory(), tableName)
                                      .replace(shape, _access.options(kind), isRecordOf);
   std::string records = "what it held is found out again";
   if (isRecordOf) {
      records =
         fmt::format("{} records kept, {}{} lost", outcome.kept,
                     outcome.isKnown ? "" : "nobody knows how many, at least ", outcome.lost);
   }
   const std::string text =
      fmt::format(replacedTable, name(), tableName, problem, records,
                  outcome.file.empty() ? "the old one is not kept"
                                       : fmt::format("the old one is kept as {}", outcome.file));
   TARN_TRACE(traceSource, 0, "replace", "{}", text);
   _state.lastErrorIs(text);
   _counters.replaced.Inc();
   for (std::size_t i = 0; i < outcome.lost; ++i) {
      _counters.lostRecords.Inc();
   }
   return outcome;
}

/// Which operations were begun is not known any more of all: none of those that wait is begun now,
/// as it might be for the second time.
void CoreAgent::_claimAll() {
   for (const auto& key : _tables.ops->op().keys()) {
      if (!_tables.opsStatus->op().has(key)) {
         TarnRegFile::Sable::OrderedRegisterOp claim(key);
         claim.opSizeIs(_tables.ops->op().get(key).value_or(claim).opSize());
         _tables.opsStatus->op().checkWrite(key);
         _tables.opsStatus->opIs(claim);
      }
   }
   _claimsLost = false;
}

void CoreAgent::_subscribe() {
   using TarnRegFile::Sable::ShadowRegisterConfig;
   using TarnRegFile::Sable::ShadowRegisterStatus;
   for (const Mount& mount : _mounts) {
      _subscriptions.push_back(Platform::subscribe(
         *mount.control, Control::mountStatusAttr, [this, &mount](const Platform::Change&) {
            if (mount.table->mountStatus() == Platform::Tables::MountStatus::corrupted) {
               const std::string text = mount.table->statusText();
               _troubled(text);
               if (_inCore > 0) {
                  // It has only looked, and would take the table for empty and write it next.
                  throw Platform::Tables::CorruptionException(text);
               }
            }
         }));
   }
   _subscriptions.push_back(Platform::subscribe(*_tables.config, ShadowRegisterConfig::regMapAttr,
                                                [this](const Platform::Change& change) {
                                                   const Key key = change.key.as<Key>();
                                                   _guarded([&] { _configChanged(key); });
                                                }));
   _subscriptions.push_back(
      Platform::subscribe(*_tables.status, ShadowRegisterStatus::regMapAttr,
                          [this](const Platform::Change&) { _statusChanged(); }));
   _subscriptions.push_back(
      Platform::subscribe(*_tables.request, ShadowRegisterConfig::regMapAttr,
                          [this](const Platform::Change&) { _guarded([this] { _requested(); }); }));
   _runner = std::make_unique<OrderedRunner>(
      _loop, _tables.ops, _tables.opsStatus, _settings.keptOperations, _ordered,
      OrderedRunner::Handlers{
         .canStart =
            [this] { return _core && _core->ready() && !_failure && !_trouble && _inFlight == 0; },
         .write = [this](std::uint32_t address,
                         std::uint32_t value) { return _orderedWrite(address, value); },
         .written = [this](std::uint32_t address,
                           std::uint32_t value) { _orderedWritten(address, value); },
         .stopped =
            [this](const std::string& text) {
               _state.lastErrorIs(text);
               _show();
            },
         .idle = [this] { _applyHeldBack(); },
         .troubled = [this](const std::string& text) { _troubled(text); }});
}

void CoreAgent::_unmount() noexcept {
   _subscriptions.clear();
   _runner.reset();
   _stateTable.reset();
   for (const Mount& mount : _mounts) {
      mount.control->unmount();
   }
}

// -- trouble with tables -------------------------------------------------------------------------

/// Runs what the loop or a transport has called. What goes wrong with a table is no reason to end:
/// the other cores have nothing to do with it.
template <typename Work>
void CoreAgent::_guarded(const Work& work) {
   try {
      work();
   } catch (const Platform::Tables::CorruptionException& error) {
      _troubled(error.what());
   } catch (const std::system_error& error) {
      _troubled(error.what());
   }
}

/// From here on nothing more is read or written for the core, until the tables have been mended.
void CoreAgent::_troubled(const std::string& text) {
   if (_trouble) {
      return;
   }
   // At once, as the repair may take long: what the tables have is not to be relied upon.
   _state.ready = false;
   _state.valid = false;
   _state.phase = Phase::waiting;
   _state.lastErrorIs(fmt::format(cannotUse, name(), text));
   if (_stateTable) {
      try {
         _stateTable->stateIs(_state);
      } catch (const std::exception&) {
         // Then that is what is to be repaired.
      }
   }
   _trouble = text;
   TARN_TRACE(traceSource, 0, "troubled", cannotUse, name(), text);
   if (_tap) {
      _tap->close();
   }
   if (_core && !_core->ready()) {
      _core->transportDel(); // which ends the reads of a synchronous one
   }
   _repairing.startIn({});
}

void CoreAgent::_repair() {
   const std::string trouble = _trouble.value_or("");
   try {
      _subscriptions.clear();
      _runner.reset(); // what it was at has been claimed, and is not begun again
      _heldBack.clear();
      _endGeneration();
      _dropCore();
      _unmount();
      _state.lastErrorIs(fmt::format(cannotUse, name(), trouble));
      _mount();
      _trouble.reset();
      _phaseIs(Phase::waiting);
      _retry.startIn(_retryDelay);
   } catch (const std::exception& error) {
      // It holds no other core up, and may pass: a full file system, a client that was stopped.
      TARN_TRACE(traceSource, 0, "repair", "{}; trying again in {} ms", error.what(),
                 _retryDelay.count());
      _trouble = error.what();
      _repairing.startIn(_retryDelay);
   }
   _retryDelay = std::min(_retryDelay * 2, _settings.retryMost);
}

void CoreAgent::_audit() {
   if (_trouble) {
      return;
   }
   for (const Mount& mount : _mounts) {
      checkTable(*mount.table);
   }
   if (const std::string problem = _stateTable->problem(); !problem.empty()) {
      throw Platform::Tables::CorruptionException(problem);
   }
}

// -- generations ---------------------------------------------------------------------------------

void CoreAgent::renew() {
   if (_trouble) {
      return; // a new one begins in any case
   }
   _guarded([this] {
      _endGeneration();
      _retryDelay = _settings.retryFirst;
      _retry.startIn({});
   });
}

void CoreAgent::_probe() {
   _prober.reset();
   _dropCore();
   _progress(0);
   _onesRead = 0;
   _phaseIs(Phase::probing);
   try {
      auto transport = TarnRegFile::transportMethodFactory(name());
      transport->fullInit(_hardware.descriptor(),
                          TarnRegFile::TransportMethodRegFile(_hardware.registers));
      _prober = std::make_unique<Probe>(
         _loop, transport, _regNames, _settings.answerTimeout,
         Probe::Handlers{
            .done = [this](const Failure* failure) { _guarded([&] { _probed(failure); }); },
            .read =
               [this](const std::string& regName, std::uint32_t value, std::size_t read) {
                  _onesRead += _isOnes(regName, value) ? 1U : 0U;
                  _guarded([&] { _progress(read); });
               },
            .reason = [this](const std::string& regName) { return _reason(regName); }});
   } catch (const Platform::Tables::CorruptionException&) {
      throw; // not the device's
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
   if (_onesRead > 0 && _hardware.isThere && _hardware.isThere() == false) {
      _counters.failedProbes.Inc();
      _fail({_regNames.front(), onesByBus});
      return;
   }
   const bool isKnownThere = _hardware.isThere && _hardware.isThere() == true;
   if (_onesRead == _regNames.size() && _onesRead > 1 && !isKnownThere) {
      _counters.failedProbes.Inc();
      _fail({_regNames.front(), onesByAll});
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
   checkTable(_tables.status->regMap()); // which is going to be emptied
   _model =
      TarnRegFile::Sable::sableCoreFactory(name(), _hardware.registers, _hardware.descriptor());
   _model->generationIs({_state.generation, false});
   _core = Platform::make<ShadowCore>(_model, _tables.config, _tables.status,
                                      [this](bool ready) { _ready(ready); });
   _generation = Platform::subscribe(*_core, ShadowCore::hwGenerationAttr,
                                     [this](const Platform::Change&) { _tapTransport(); });
   _progress(0);
   _onesRead = 0;
   ++_state.generation;
   _state.valid = true;
   _syncBegan = std::chrono::steady_clock::now();
   _counters.generations.Inc();
   _phaseIs(Phase::syncing);
   _answer.startIn(_settings.answerTimeout);
   _model->generationIs({_state.generation, true});
   const Depth inCore(_inCore);
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
         _guarded([&] { _readResult(regName, result, value); });
      },
      [this](const String& regName, auto result) {
         _guarded([&] { _writeResult(regName, result); });
      });
}

void CoreAgent::_ready(bool ready) {
   _state.ready = ready && !_failure && !_trouble;
   if (!_state.ready) {
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
   _isOwnStatus = false;
   _isSettled = false;
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
   if (_runner && !_trouble) { // else the repair drops it
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
   const bool isSuccess = result == ResultTap::Result::Success;
   if (_isLooking) {
      _lookedOnes = isSuccess ? std::optional(_isOnes(regName, value)) : std::nullopt;
      return;
   }
   if (!isSuccess) {
      _accessFailed(regName, _reason(regName), true);
      return;
   }
   _accessed();
   if (_failure || _trouble || !_core->transport()) {
      return;
   }
   _onesRead += _isOnes(regName, value) ? 1U : 0U;
   if (_state.ready ? _isOnes(regName, value)
                    : _onesRead > 0 && _state.registersRead + 1 >= _state.registersTotal) {
      if (auto gone = _gone(regName)) {
         _counters.errors.Inc();
         ++_state.errors;
         _failure = std::move(gone);
         if (!_state.ready) {
            _core->transportDel();
         }
         _failing.startIn({});
         return;
      }
   }
   _tables.status->regMap().checkWrite(Key(_model->findRegisterDesc(regName)->address));
   if (_state.ready) {
      _isChecking = false;
      _answer.cancel();
      if (_suspect == regName) {
         _suspect.reset();
      } else if (_suspect) {
         _checking.startIn({}); // its access failed while another register was read
      }
   } else {
      ++_state.registersRead;
      if (_core->transport() && _core->transport()->isAsync()) {
         _answer.startIn(_settings.answerTimeout); // others return with their answer
      }
      if (_state.registersRead >= _state.registersTotal) {
         _refuseForeign(); // the state machine is about to look at all of the configuration
      }
   }
   if (_trouble || !_core->transport()) {
      return; // it would rely on a transport that was taken from it
   }
   _isOwnStatus = true; // until the status has the value
   const Flag issuing(_isIssuing);
   const Depth inCore(_inCore);
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
   if (_core->ready() && !_state.ready) {
      _core->readyIs(false); // which ends the writes of what is configured
   }
   if (!_core->ready()) { // else it may be writing what is configured, and relies on its transport
      _core->transportDel(); // which ends the reads of a synchronous one
   }
   _failing.startIn({});
}

/// Whether all bits that the register has are ones.
bool CoreAgent::_isOnes(const std::string& regName, std::uint32_t value) const {
   const auto* record = _hardware.registers->findRegister(regName);
   const std::uint32_t width = record ? record->width : 32;
   return value == (width >= 32 ? ~std::uint32_t{0} : (std::uint32_t{1} << width) - 1);
}

/// What to say of a device that has just answered all ones, if it has gone. A register of an
/// asynchronous one does not answer at all then.
std::optional<Failure> CoreAgent::_gone(const std::string& regName) {
   if (const auto isThere = _hardware.isThere ? _hardware.isThere() : std::nullopt) {
      return *isThere ? std::nullopt : std::optional(Failure{regName, onesByBus});
   }
   const Ptr<TarnRegFile::TransportMethod> transport = _core->transport();
   if (!transport || transport->isAsync() || _regNames.size() < 2) {
      return std::nullopt;
   }
   const Flag looking(_isLooking);
   for (const std::string& other : _regNames) {
      _lookedOnes.reset();
      transport->regRead(other);
      if (!_lookedOnes.value_or(false)) {
         return std::nullopt; // a failure is noticed when it is read next
      }
   }
   return Failure{regName, onesByAll};
}

/// Reads the suspect, or, if there is none, the first register.
void CoreAgent::_check() {
   if (!_core || !_core->ready() || _failure || _trouble || _isChecking) {
      return;
   }
   _isChecking = true;
   _answer.startIn(_settings.answerTimeout);
   const std::string regName = _suspect.value_or(_regNames.front());
   const Ptr<TarnRegFile::TransportMethod> transport = _core->transport();
   transport->regRead(regName);
}

void CoreAgent::_accessed() {
   // Looking at the clock is a good part of what a fast access costs.
   const auto now = std::chrono::steady_clock::now();
   _state.accessWall = wallNow();
   _state.accessMonotonic = microsOf<std::chrono::steady_clock>(now);
   _progress(_state.registersRead, now); // also while what is configured is written
}

std::string CoreAgent::_reason(const std::string& regName) const {
   const std::string reason = _hardware.reason ? _hardware.reason(regName) : std::string();
   return reason.empty() ? "the access failed" : reason;
}

// -- configuration -------------------------------------------------------------------------------

void CoreAgent::_requested() {
   if (_trouble) {
      return;
   }
   const auto request = _tables.request->regMap().get(Key(0));
   if (!request || request->value() == _state.lastRequest) {
      return;
   }
   _state.lastRequest = request->value();
   TARN_TRACE(traceSource, 1, "requested", "{}: a new generation is asked for", name());
   renew();
}

bool CoreAgent::_isOfCore(Key key) {
   const std::optional<CoreRegister> wanted = _tables.config->regMap().get(key);
   const bool isKnown = _addresses.contains(key.address());
   if (isKnown && (!wanted || wanted->key() == key)) {
      return true;
   }
   // The state machine would end the process over it, and the next one again.
   if (wanted) {
      const std::string text =
         isKnown ? fmt::format(misplaced, name(), key.address(), wanted->key().address())
                 : fmt::format(foreign, name(), key.address());
      // A client that writes many of them does not fill the log; all are counted.
      if (const auto now = std::chrono::steady_clock::now(); now - _refused >= showTime) {
         _refused = now;
         TARN_TRACE(traceSource, 0, "config", "{}", text);
      }
      _counters.refused.Inc();
      _state.lastErrorIs(text);
      _show();
      _tables.config->regMap().checkWrite(key);
      _tables.config->regMapDel(key);
   }
   return false;
}

void CoreAgent::_refuseForeign() {
   for (const Key& key : _tables.config->regMap().keys()) {
      if (_isOfCore(key)) {
         _tables.status->regMap().checkWrite(key);
      }
   }
}

void CoreAgent::_configChanged(Key key) {
   if (_trouble || !_isOfCore(key) || !_core || _failure) {
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
   _tables.status->regMap().checkWrite(key);
   const Flag issuing(_isIssuing);
   const Depth inCore(_inCore);
   core->handleShadowRegister(key);
}

void CoreAgent::_applyHeldBack() {
   // An operation that waits for its turn waits for these as well.
   for (const std::uint32_t address : std::exchange(_heldBack, {})) {
      if (_core && _core->ready() && !_failure && !_trouble) {
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
   _tables.status->regMap().checkWrite(record.key());
   _isOwnStatus = true;
   _tables.status->regMapIs(record);
   _isOwnStatus = false;
   // What is wanted and what was ordered last are not to contradict each other.
   // A wish that has come since the operation began is newer, and waits for its end.
   if (const auto wanted = _tables.config->regMap().get(record.key());
       wanted && *wanted != record && !_heldBack.contains(address)) {
      _tables.config->regMap().checkWrite(record.key());
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

void CoreAgent::_progress(std::size_t read, std::chrono::steady_clock::time_point now) {
   _state.registersRead = static_cast<std::uint32_t>(read);
   if (now - _shown >= showTime) {
      _show();
      if (_hardware.alive) {
         _hardware.alive();
      }
      if (_hardware.isToEnd && _core && !_core->ready() && _core->transport() &&
          _hardware.isToEnd()) {
         _core->transportDel(); // whoever has the loop next ends it all
      }
   }
}

void CoreAgent::_show() {
   _shown = std::chrono::steady_clock::now();
   if (_stateTable && !_trouble) {
      _guarded([this] { _stateTable->stateIs(_state); });
   }
}

} // namespace Agent
