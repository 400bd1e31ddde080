#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/Timer.h"
#include "platform/metrics/Counter.h"
#include "TarnRegFile/OrderedRegisterConfig.h"
#include "TarnRegFile/OrderedRegisterStatus.h"

namespace Agent {

/// Carries out the ordered operations of one core: one after the other, each once.
///
/// An operation is claimed by a record of status that has its key and size and no writes, which is
/// extended after each write that succeeded. Whatever has a record of status has been claimed, by
/// this agent or by one before it, and is never begun again. At the end its record of configuration
/// is removed, which is how clients learn of the end; the status tells what was carried out. One
/// whose record of configuration others remove ends before its next write.
///
/// Operations run in the order in which they are noticed, those that are there already at the
/// start in that of their ids. Owned by the core's agent, on the loop's thread.
class OrderedRunner {
public:
   using Config = TarnRegFile::Sable::OrderedRegisterConfig;
   using Status = TarnRegFile::Sable::OrderedRegisterStatus;
   using Op = TarnRegFile::Sable::OrderedRegisterOp;

   struct Counters {
      Platform::Metrics::Counter operations; ///< begun
      Platform::Metrics::Counter incomplete; ///< of these, ended before the last write
      Platform::Metrics::Counter writes;     ///< that succeeded
   };

   struct Handlers {
      /// Whether writes can be made now, with nobody else's under way. If not, go() follows.
      std::function<bool()> canStart;
      /// Writes a register, whose result goes to result(); or says why not.
      std::function<std::optional<std::string>(std::uint32_t address, std::uint32_t value)> write;
      /// A write has succeeded; the outcome does not tell of it yet.
      std::function<void(std::uint32_t address, std::uint32_t value)> written;
      /// An operation stopped before its end.
      std::function<void(const std::string& text)> stopped;
      /// An operation has ended, or was taken back before it began; nothing is under way.
      std::function<void()> idle;
      /// A table cannot be used: it is damaged, or somebody keeps it. Nothing more is done then.
      std::function<void(const std::string& text)> troubled;
   };

   /// The tables are mounted. Up to `kept` outcomes are left in the table of status. `counters`
   /// outlive it.
   OrderedRunner(Platform::EventLoop& loop, TarnRegFile::Ptr<Config> config,
                 TarnRegFile::Ptr<Status> status, std::size_t kept, Counters& counters,
                 Handlers handlers);
   ~OrderedRunner();
   OrderedRunner(const OrderedRunner&) = delete;
   OrderedRunner& operator=(const OrderedRunner&) = delete;

   /// Begins the next operation if there is one and it may be: soon, from the loop.
   void go();

   /// The result of the write under way. As the next one, throws what the tables do, damage that a
   /// write would meet included.
   void result(bool isSuccess, const std::string& reason);

   /// The device has gone: what is under way ends where it is.
   void abandon(const std::string& reason);

   /// Whether an operation is under way.
   bool busy() const noexcept { return _current.has_value(); }
   bool wantsToStart() const noexcept { return !_queue.empty(); }

private:
   using Key = Platform::UniqueId;

   template <typename Work>
   void _guarded(const Work& work);
   void _scan();
   void _noticed(Key key);
   void _startNext();
   void _step();
   void _end(const std::optional<std::string>& reason);
   void _keep(Key key);
   void _statusIs(const Op& op);
   void _statusDel(Key key);
   void _configDel(Key key);

   const TarnRegFile::Ptr<Config> _config;
   const TarnRegFile::Ptr<Status> _status;
   const std::size_t _kept;
   const Handlers _handlers;
   Counters& _counters;

   std::deque<Key> _queue;
   std::set<Key> _queued;
   std::deque<Key> _ended; // oldest first
   std::optional<Op> _current;
   Op _done;
   std::size_t _index = 0;
   bool _isStepping = false;
   bool _isWriting = false;

   Platform::Timer _turn;
   Platform::Subscription _subscription;
};

} // namespace Agent
