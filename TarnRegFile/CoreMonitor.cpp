#include "TarnRegFile/CoreMonitor.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Timer.h"
#include "platform/entity/UniqueId.h"
#include "TarnRegFile/CoreClientTable.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/ShadowError.h"

namespace TarnRegFile::Sable {

namespace {

constexpr const char* notResynced = "core '{}' has no new generation in time: {}";
constexpr const char* noOwner = "no owner of it has shown itself";
constexpr const char* stopped = "its owner has stopped";
constexpr const char* ownerGone = "its owner does not run any more";
constexpr const char* inPhase = "it is {}";
constexpr const char* withError = "{}; its last error: {}";

/// How often it is looked whether the owner lives, which nobody is told of.
constexpr std::chrono::milliseconds lookInterval{100};

constexpr CoreRegisterKey requestKey{0};

struct Seen {
   std::optional<CoreState> state;
   OwnerLife owner = OwnerLife::unknown;

   bool operator==(const Seen&) const = default;
};

/// Who is told, and what was told last.
struct Follower {
   CoreMonitor::Handler handler;
   Seen told;
};

bool isServed(const std::optional<CoreState>& state) {
   return state && state->ready && state->valid;
}

} // namespace

/// Kept by the monitor and by a call under way, which the monitor need not survive.
class CoreMonitor::Impl : public std::enable_shared_from_this<Impl> {
public:
   Impl(Platform::EventLoop& ownLoop, Platform::Tables::TableService& service, const String& core)
      : loop(ownLoop), coreName(core), _owner(service.directory(), core),
        _state(service, core, "state", [this](const Platform::UniqueId&) { _tell(); }),
        _request(service, core, "request"), _looking(ownLoop, [this] { _tell(); }) {}

   /// The monitor's end: tells nobody any more.
   void close() {
      _closed = true;
      _followers.clear();
      _looking.cancel();
      _state.close();
      _request.close();
   }

   std::optional<CoreState> state() { return _state.get(CoreState::theKey); }
   OwnerLife owner() const noexcept { return _owner.life(); }

   // There are three things to look at, the owner's lock, its state and, in `condition`, other
   // tables of the core, and no order between their changes is to be seen from here but this: an
   // owner shows a state that is not ready before it takes the lock by which it counts as alive;
   // it shows that it is ready after the status was filled; and once that has ended it shows so
   // before it touches the status again.
   //
   // - The lock before the state. A new owner that comes in between has shown its own state by the
   //   time it counts as alive, so a state that is seen afterwards was said by an owner that lived
   //   when the lock was looked at, or later. The other way round, the ready state of a killed
   //   owner would be taken for the living one's.
   // - The state before `condition`. The other way round, the condition might hold for what a
   //   generation that has ended has left, and the state be that of the next one, which may have
   //   found something else.
   // - And the state again after it, of the same moment of change: whatever `condition` saw was
   //   there while that generation was ready. Otherwise the generation might end after the first
   //   look, and the condition see how the next one fills the status.
   //
   // An owner that dies meanwhile changes nothing: what was seen was true before. If this user may
   // not know whether it lives, what it said is all there is.
   bool isReadyAnd(const std::function<bool()>& condition) {
      if (owner() == OwnerLife::gone) {
         return false;
      }
      const std::optional<CoreState> before = state();
      if (!isServed(before) || !condition()) {
         return false;
      }
      const std::optional<CoreState> after = state();
      return isServed(after) && after->generation == before->generation &&
             after->pid == before->pid && after->changedMonotonic == before->changedMonotonic;
   }

   String summary() {
      const OwnerLife life = owner();
      const std::optional<CoreState> now = state();
      if (!now) {
         return noOwner;
      }
      String text = fmt::format(inPhase, Platform::enumString(now->phase));
      if (now->phase == CorePhase::stopped) {
         text = stopped;
      } else if (life == OwnerLife::gone) {
         text = ownerGone;
      }
      return now->lastError.empty() ? text : fmt::format(withError, text, now->lastError);
   }

   Following follow(Handler handler) {
      const auto kept = std::make_shared<Follower>();
      kept->handler = std::move(handler);
      kept->told = _seen();
      std::erase_if(_followers, [](const auto& one) { return one.expired(); });
      _followers.push_back(kept);
      _looking.startIn(lookInterval);
      return kept;
   }

   /// Writes a request that is none that there is or was.
   void ask(const std::optional<CoreState>& before) {
      const std::optional<CoreRegister> asked = _request.get(requestKey);
      for (;;) {
         // Of those that other clients draw at the same time it differs most likely; if not, one
         // generation serves both.
         const auto number = static_cast<std::uint32_t>(Platform::UniqueId::fresh().value());
         if ((!asked || asked->value() != number) && (!before || before->lastRequest != number)) {
            _request.put(CoreRegister(requestKey, number));
            return;
         }
      }
   }

   // Whether a generation that has begun after `before` was seen is ready, without a further one
   // that is asked for already.
   //
   // An owner that takes up a request ends its generation before it shows so, and one that starts
   // takes up what it finds before its first. So if it is ready, and the request that it took up
   // last is another one than before, all that it serves was read since then. It need not be our
   // request: another client may have replaced it before the owner looked, and then the one that
   // stands does for both. Waiting for the one that stands, rather than for any, keeps us from
   // returning a generation that is about to end.
   //
   // The request that stands is looked at before the state: one that is made in between is not
   // waited for, while the other way round the state could be that of before.
   std::optional<CoreState> resynced(const std::optional<CoreState>& before) {
      if (_closed) {
         return std::nullopt;
      }
      const std::optional<CoreRegister> asked = _request.get(requestKey);
      if (!asked || (before && asked->value() == before->lastRequest)) {
         ask(before); // somebody has put back what was there before, or removed it
         return std::nullopt;
      }
      if (owner() == OwnerLife::gone) {
         return std::nullopt;
      }
      std::optional<CoreState> now = state();
      return isServed(now) && now->lastRequest == asked->value() ? now : std::nullopt;
   }

   String damage() const { return _state.damage().empty() ? _request.damage() : _state.damage(); }

   Platform::EventLoop& loop;
   const String coreName;

private:
   Seen _seen() {
      const OwnerLife life = owner(); // first, see isReadyAnd()
      return {state(), life};
   }

   Seen _seenOrThrow() {
      try {
         Seen now = _seen();
         _isDamageTold = false;
         return now;
      } catch (const ShadowError& error) {
         if (error.kind() == ShadowError::Kind::damaged) {
            _isDamageTold = true;
            _looking.startIn(lookInterval); // another table may come
         }
         throw;
      }
   }

   void _tell() {
      const std::shared_ptr<Impl> self = shared_from_this();
      std::erase_if(_followers, [](const auto& one) { return one.expired(); });
      if (_followers.empty()) {
         return;
      }
      if (_isDamageTold && _state.isStillDamaged()) {
         _looking.startIn(lookInterval);
         return;
      }
      const Seen now = _seenOrThrow();
      _looking.startIn(lookInterval);
      const auto followers = _followers;
      std::exception_ptr first;
      for (const std::weak_ptr<Follower>& one : followers) {
         const std::shared_ptr<Follower> follower = one.lock();
         // Any handler may have closed the monitor.
         if (_closed || !follower || follower->told == now) {
            continue;
         }
         follower->told = now;
         try {
            follower->handler(now.state, now.owner);
         } catch (...) {
            first = first ? first : std::current_exception();
         }
      }
      if (first) {
         std::rethrow_exception(first);
      }
   }

   const CoreOwner _owner;
   CoreClientTable<CoreState> _state;
   CoreClientTable<CoreRegister> _request;
   std::vector<std::weak_ptr<Follower>> _followers;
   Platform::Timer _looking;
   bool _isDamageTold = false; // to who runs the loop, which is done once
   bool _closed = false;
};

CoreMonitor::CoreMonitor(Platform::EventLoop& loop, Platform::Tables::TableService& service,
                         const String& coreName)
   : _impl(std::make_shared<Impl>(loop, service, coreName)) {}

CoreMonitor::~CoreMonitor() {
   _impl->close();
}

const String& CoreMonitor::coreName() const noexcept {
   return _impl->coreName;
}

std::optional<CoreState> CoreMonitor::state() const {
   return _impl->state();
}

OwnerLife CoreMonitor::owner() const noexcept {
   return _impl->owner();
}

bool CoreMonitor::isReady() const {
   return _impl->isReadyAnd([] { return true; });
}

bool CoreMonitor::isReadyAnd(const std::function<bool()>& condition) const {
   return _impl->isReadyAnd(condition);
}

String CoreMonitor::summary() const {
   return _impl->summary();
}

CoreMonitor::Following CoreMonitor::follow(Handler handler) {
   return _impl->follow(std::move(handler));
}

CoreState CoreMonitor::resync(std::chrono::nanoseconds timeout) {
   const std::shared_ptr<Impl> impl = _impl; // a handler may end the monitor
   const std::optional<CoreState> before = impl->state();
   impl->ask(before);
   std::optional<CoreState> now;
   if (!impl->loop.runUntil(
          [&] {
             now = impl->resynced(before);
             return now.has_value();
          },
          timeout)) {
      throw ShadowError(ShadowError::Kind::timedOut,
                        fmt::format(notResynced, impl->coreName, impl->summary()));
   }
   return *now;
}

String CoreMonitor::damage() const {
   return _impl->damage();
}

} // namespace TarnRegFile::Sable
