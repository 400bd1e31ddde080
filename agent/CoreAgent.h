#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "agent/DamagedTable.h"
#include "agent/Failure.h"
#include "agent/OrderedRunner.h"
#include "agent/OwnerLock.h"
#include "agent/Probe.h"
#include "agent/ResultTap.h"
#include "agent/Settings.h"
#include "agent/ShadowCore.h"
#include "agent/StateTable.h"
#include "agent/TableAccess.h"
#include "platform/metrics/Histogram.h"
#include "platform/metrics/Registration.h"
#include "platform/metrics/Registry.h"
#include "platform/tables/CollectionControl.h"

namespace Agent {

/// One core of the agent: its tables, its hardware, and what happens between them.
///
/// The device is probed; if every register can be read, a new valid generation begins, in which the
/// state machine fills the shadow registers and serves them. A failed access is counted, and the
/// register read again; if that fails too the generation ends, and the device is probed again and
/// again, at growing distances, until it is back, which is a new generation.
///
/// A device that has gone may answer all ones and no errors. Where a register reads so, it is asked
/// whether that can be: whoever watches the device's bus knows; otherwise a core of which every
/// register reads all ones, and there are several, has gone. One that has registers of all ones
/// among others is there.
///
/// A table that is damaged, or that cannot be written, ends the generation too. It is then mounted
/// anew, a damaged one after it was replaced: of what clients and operations have said everything
/// that is undamaged is kept, the rest is made anew. No core's tables are another one's trouble.
///
/// Owned by the daemon, on the thread of the tables' loop.
class CoreAgent {
public:
   /// What the core is made of. `descriptor` opens the device anew each time, and may throw.
   struct Hardware {
      std::string name;
      TarnRegFile::Ptr<TarnRegFile::HardwareRegisterFile> registers;
      std::function<TarnRegFile::Ptr<TarnRegFile::BaseTransportDescriptor>()> descriptor;
      /// Why the last access of a register failed; empty if nobody knows.
      std::function<std::string(const std::string& regName)> reason;
      /// Called while long work goes on.
      std::function<void()> alive;
      /// Whether the agent is to end, so that there is no use in filling the shadow. Asked while
      /// that keeps the loop from hearing of it.
      std::function<bool()> isToEnd = {};
      /// Whether the device is on its bus, by another word than its own; none if nobody knows.
      std::function<std::optional<bool>()> isThere = {};
   };

   /// Mounts the tables, and begins. Throws OwnedError if the core has an agent already,
   /// std::runtime_error if it has no registers, and what mounting throws.
   CoreAgent(Platform::EventLoop& loop, Platform::Tables::TableService& tables, Hardware hardware,
             const Settings& settings, Platform::Metrics::Registry& registry);

   /// Says "stopped" and unmounts.
   ~CoreAgent();
   CoreAgent(const CoreAgent&) = delete;
   CoreAgent& operator=(const CoreAgent&) = delete;

   const std::string& name() const noexcept { return _hardware.name; }

   /// Ends the generation and begins a new one.
   void renew();

   /// What the state table has.
   const TarnRegFile::Sable::CoreState& state() const noexcept { return _state; }

private:
   using Phase = TarnRegFile::Sable::CorePhase;
   using Key = TarnRegFile::Sable::CoreRegisterKey;
   using Control = Platform::Tables::CollectionControl;

   struct Counters {
      Platform::Metrics::Counter generations;
      Platform::Metrics::Counter failedProbes;
      Platform::Metrics::Counter losses;
      Platform::Metrics::Counter errors;
      Platform::Metrics::Counter refused;  ///< configured addresses that there are not
      Platform::Metrics::Counter replaced; ///< tables
      Platform::Metrics::Counter lostRecords;
   };

   struct Tables {
      TarnRegFile::Ptr<TarnRegFile::Sable::ShadowRegisterConfig> config;
      TarnRegFile::Ptr<TarnRegFile::Sable::ShadowRegisterStatus> status;
      TarnRegFile::Ptr<TarnRegFile::Sable::OrderedRegisterConfig> ops;
      TarnRegFile::Ptr<TarnRegFile::Sable::OrderedRegisterStatus> opsStatus;
      TarnRegFile::Ptr<TarnRegFile::Sable::ShadowRegisterConfig> request;
   };

   /// One of them, as far as they are alike.
   struct Mount {
      TableAccess::Kind kind;
      const Platform::Tables::TableBase* table;
      TarnRegFile::Ptr<Control> control;
      DamagedTable::IsRecord isRecord; ///< what is kept of a damaged one; nothing if empty
      std::function<void()> check;     ///< throws if there is what is no record
   };

   static Tables _tablesOf(const std::string& name);
   void _declare();
   void _mount();
   void _mountOne(const Mount& mount);
   bool _finishReplacement(const Mount& mount);
   void _mountState();
   void _claimAll();
   DamagedTable::Outcome _replace(const std::string& name,
                                  const Platform::Tables::TableShape& shape, TableAccess::Kind kind,
                                  const DamagedTable::IsRecord& isRecord,
                                  const std::string& problem);
   void _subscribe();
   void _unmount() noexcept;
   template <typename Work>
   void _guarded(const Work& work);
   void _troubled(const std::string& text);
   void _repair();
   void _audit();

   void _probe();
   void _probed(const Failure* failure);
   void _begin();
   void _tapTransport();
   void _ready(bool ready);
   void _fail(const Failure& failure);
   void _endGeneration();
   void _dropCore();

   void _readResult(const std::string& regName, ResultTap::Result result, std::uint32_t value);
   void _writeResult(const std::string& regName, ResultTap::Result result);
   void _accessFailed(const std::string& regName, const std::string& reason, bool isRead);
   void _check();
   void _accessed();
   bool _isOnes(const std::string& regName, std::uint32_t value) const;
   std::optional<Failure> _gone(const std::string& regName);

   void _requested();
   void _configChanged(Key key);
   void _apply(Key key);
   bool _isOfCore(Key key);
   void _refuseForeign();
   void _statusChanged();
   std::optional<std::string> _orderedWrite(std::uint32_t address, std::uint32_t value);
   void _orderedWritten(std::uint32_t address, std::uint32_t value);
   void _applyHeldBack();

   std::string _reason(const std::string& regName) const;
   void _phaseIs(Phase phase);
   void _progress(std::size_t read,
                  std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now());
   void _show();

   Platform::EventLoop& _loop;
   Platform::Tables::TableService& _service;
   const Hardware _hardware;
   const Settings _settings;

   Counters _counters;
   OrderedRunner::Counters _ordered;
   Platform::Metrics::Histogram _syncTime;

   std::vector<std::string> _regNames; // one for each address, in the order of addresses
   std::unordered_set<std::uint32_t> _addresses;
   const TableAccess _access;
   Tables _tables;
   std::vector<Mount> _mounts;
   std::unique_ptr<OwnerLock> _lock;
   std::unique_ptr<StateTable> _stateTable;
   TarnRegFile::Sable::CoreState _state;
   std::chrono::steady_clock::time_point _shown;
   std::chrono::steady_clock::time_point _refused; // when a refusal was traced

   TarnRegFile::Ptr<TarnRegFile::Sable::SableCoreBase> _model;
   TarnRegFile::Ptr<ShadowCore> _core;
   TarnRegFile::Ptr<ResultTap> _tap;
   std::unique_ptr<Probe> _prober;
   std::unique_ptr<OrderedRunner> _runner;
   Platform::Metrics::Registration _registration;

   std::chrono::milliseconds _retryDelay;
   std::chrono::steady_clock::time_point _syncBegan;
   std::optional<std::string> _trouble; // with a table, still to be mended
   bool _isMounting = false;
   unsigned _inCore = 0;            // calls of the state machine under way
   bool _claimsLost = false;        // it is not known which operations were begun
   std::size_t _onesRead = 0;       // of the probe or sync under way
   std::optional<bool> _lookedOnes; // while all ones are looked into: what the last read brought
   bool _isLooking = false;
   std::optional<Failure> _failure;     // of this generation, still to be handled
   std::optional<std::string> _suspect; // the register whose access failed
   bool _isChecking = false;            // a read of it, or a regular one, is under way
   bool _isIssuing = false;             // the core may be writing
   bool _isOwnStatus = false;           // a change of status that is no write of the core
   bool _isSettled = false;             // the core's write has its result already
   std::size_t _inFlight = 0;           // writes of the core whose results are to come
   std::set<std::uint32_t> _heldBack;   // changes of configuration, while an operation runs

   Platform::Timer _retry;     // the next probe
   Platform::Timer _failing;   // handles _failure
   Platform::Timer _checking;  // reads the suspect again
   Platform::Timer _regular;   // reads a register now and then
   Platform::Timer _answer;    // that the sync waits for
   Platform::Timer _repairing; // mends _trouble
   Platform::Timer _auditing;  // looks through the tables now and then

   std::vector<Platform::Subscription> _subscriptions;
   Platform::Subscription _generation;
};

} // namespace Agent
