#include "platform/tables/TableService.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/FdWatch.h"
#include "platform/entity/Timer.h"
#include "platform/tables/private/FileHandle.h"
#include "platform/tables/TableMount.h"
#include "platform/trace/Trace.h"

namespace Platform::Tables {

namespace {

TARN_TRACE_SOURCE(traceSource, "platform/tables");

constexpr std::chrono::milliseconds pollPeriod{10};
constexpr std::uint32_t events = IN_MODIFY | IN_CLOSE_WRITE;

} // namespace

struct TableService::Watch::State {
   std::weak_ptr<Impl> service;
   Handler handler;
   int descriptor = -1; // inotify's; -1: looked at from time to time
   bool gone = false;
};

class TableService::Impl : public std::enable_shared_from_this<TableService::Impl> {
public:
   using StatePtr = std::shared_ptr<Watch::State>;

   Impl(EventLoop& loop, TableDirectory directory)
      : _loop(loop), _directory(std::move(directory)), _poll(loop, [this] { _pollAll(); }) {
      _inotify = FileHandle(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
      if (!_inotify.isOpen()) {
         TARN_TRACE(traceSource, 1, "TableService",
                    "no inotify ({}): tables are looked at every {} ms", std::strerror(errno),
                    pollPeriod.count());
         return;
      }
      _readable.emplace(loop, _inotify.fd(), FdWatch::Events{.read = true},
                        [this](FdWatch::Events) { _drain(); });
      _readable->activeIs(false);
   }

   void watchIs(const StatePtr& state, const TableMount& mount) {
      if (_inotify.isOpen() && mount.canBeWoken()) {
         // By the open file, so that it is the same one whatever happens to its name.
         const std::string path = fmt::format("/proc/self/fd/{}", mount.bellFd());
         state->descriptor = ::inotify_add_watch(_inotify.fd(), path.c_str(), events);
         if (state->descriptor < 0) {
            TARN_TRACE(traceSource, 1, "TableService",
                       "cannot watch table '{}' ({}): it is looked at every {} ms", mount.name(),
                       std::strerror(errno), pollPeriod.count());
         }
      }
      _watches.push_back(state);
      try {
         _waitAsNeeded();
      } catch (...) {
         std::erase(_watches, state); // its owner is not made
         throw;
      }
   }

   void watchDel(const StatePtr& state) noexcept {
      state->gone = true;
      std::erase(_watches, state);
      // Mounts of one table share a descriptor.
      const bool shared = std::any_of(_watches.begin(), _watches.end(), [&](const auto& other) {
         return other->descriptor == state->descriptor;
      });
      if (state->descriptor >= 0 && !shared) {
         ::inotify_rm_watch(_inotify.fd(), state->descriptor);
      }
      _waitAsNeeded();
   }

   void callSoon(const StatePtr& state, bool closed) {
      _loop.post([state, closed] {
         if (!state->gone) {
            state->handler(closed);
         }
      });
   }

   const TableDirectory& directory() const noexcept { return _directory; }

   CorruptionHandler corruptionHandler;

private:
   void _waitAsNeeded() {
      const auto isPolled = [](const StatePtr& state) { return state->descriptor < 0; };
      const auto polled =
         static_cast<std::size_t>(std::count_if(_watches.begin(), _watches.end(), isPolled));
      if (_readable) {
         // With nothing to watch the loop may end.
         _readable->activeIs(polled < _watches.size());
      }
      if ((polled > 0) != _poll.active()) {
         if (polled > 0) {
            _poll.startEvery(pollPeriod);
         } else {
            _poll.cancel();
         }
      }
   }

   void _pollAll() {
      std::vector<StatePtr> polled;
      std::copy_if(_watches.begin(), _watches.end(), std::back_inserter(polled),
                   [](const StatePtr& state) { return state->descriptor < 0; });
      _call(polled, true);
   }

   void _drain() {
      alignas(inotify_event) char buffer[4096];
      const ssize_t size = ::read(_inotify.fd(), buffer, sizeof buffer);
      std::vector<StatePtr> rung;
      bool closed = false;
      for (ssize_t at = 0; at < size;) {
         inotify_event event;
         std::memcpy(&event, buffer + at, sizeof event);
         at += static_cast<ssize_t>(sizeof event + event.len);
         // Too many at once: whose they were is not known.
         const bool everybody = (event.mask & IN_Q_OVERFLOW) != 0;
         closed = closed || everybody || (event.mask & IN_CLOSE_WRITE) != 0;
         for (const StatePtr& state : _watches) {
            if ((everybody ? state->descriptor >= 0 : state->descriptor == event.wd) &&
                std::find(rung.begin(), rung.end(), state) == rung.end()) {
               rung.push_back(state);
            }
         }
      }
      _call(rung, closed);
   }

   // Handlers may do anything, to each other's watches and to the service.
   void _call(const std::vector<StatePtr>& states, bool closed) {
      const std::shared_ptr<Impl> held = shared_from_this();
      for (std::size_t i = 0; i < states.size(); ++i) {
         if (states[i]->gone) {
            continue;
         }
         try {
            states[i]->handler(closed);
         } catch (...) {
            // The others have been told of nothing yet.
            for (std::size_t rest = i + 1; rest < states.size(); ++rest) {
               callSoon(states[rest], closed);
            }
            throw;
         }
      }
   }

   EventLoop& _loop;
   const TableDirectory _directory;
   FileHandle _inotify;
   std::optional<FdWatch> _readable;
   Timer _poll;
   std::vector<StatePtr> _watches;
};

TableService::TableService(EventLoop& loop, TableDirectory directory)
   : _impl(std::make_shared<Impl>(loop, std::move(directory))) {}

TableService::~TableService() = default;

const TableDirectory& TableService::directory() const noexcept {
   return _impl->directory();
}

void TableService::corruptionHandlerIs(CorruptionHandler handler) {
   _impl->corruptionHandler = std::move(handler);
}

void TableService::handleCorruption(const std::string& table, const std::string& message) const {
   TARN_TRACE(traceSource, 0, "handleCorruption", "table '{}': {}", table, message);
   if (const CorruptionHandler handler = _impl->corruptionHandler) {
      handler(table, message);
   }
}

TableService::Watch::Watch(TableService& service, const TableMount& mount, Handler handler)
   : _state(std::make_shared<State>()) {
   _state->service = service._impl;
   _state->handler = std::move(handler);
   service._impl->watchIs(_state, mount);
}

TableService::Watch::~Watch() {
   _state->gone = true;
   if (const std::shared_ptr<Impl> service = _state->service.lock()) {
      service->watchDel(_state);
   }
}

void TableService::Watch::callSoon() {
   if (const std::shared_ptr<Impl> service = _state->service.lock()) {
      service->callSoon(_state, false);
   }
}

} // namespace Platform::Tables
