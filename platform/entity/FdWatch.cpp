#include "platform/entity/FdWatch.h"

#include <asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/epoll.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "platform/entity/private/EventLoopImpl.h"

namespace Platform {

// A watch waits on an epoll instance of its own that has the descriptor as its only member.
// Handed the descriptor itself, Asio would put it into non-blocking mode, which is a flag of the
// open file description and so shared with every duplicate and every process that has it; and it
// would close it, and report readiness only when it changes. The instance is Asio's to keep, and
// asking it what is ready at the moment makes the watch level-triggered and keeps stale readiness
// from the handler.
struct FdWatch::State final : EventLoop::Impl::Attachment,
                              std::enable_shared_from_this<FdWatch::State> {
   State(const std::shared_ptr<EventLoop::Impl>& loop_, int fd_, Events asked_,
         std::function<void(Events)> handler_)
      : loop(loop_), fd(fd_), asked(asked_),
        handler(std::make_shared<const std::function<void(Events)>>(std::move(handler_))) {}

   void open(EventLoop::Impl& impl);
   void close(EventLoop::Impl& impl);
   void loopGone() noexcept override;
   void wait();
   void stopWaiting();
   void woken(const asio::error_code& error, std::uint64_t number);
   std::optional<Events> ready();

   std::weak_ptr<EventLoop::Impl> loop;
   int fd;
   Events asked;
   // Apart from the state, since operations that Asio has yet to end hold that one.
   std::shared_ptr<const std::function<void(Events)>> handler;
   std::optional<asio::posix::stream_descriptor> readiness; // the epoll instance
   bool active = false;
   bool inHandler = false;
   // Tells the wait under way from one that was cancelled but had already ended.
   std::uint64_t currentWait = 0;
};

void FdWatch::State::open(EventLoop::Impl& impl) {
   const auto fail = [this](int error) {
      throw std::system_error(error, std::system_category(),
                              "cannot watch file descriptor " + std::to_string(fd));
   };
   // Before there is an instance, which might get the number of a descriptor that is not open.
   if (::fcntl(fd, F_GETFD) < 0) {
      fail(errno);
   }
   const int instance = ::epoll_create1(EPOLL_CLOEXEC);
   if (instance < 0) {
      throw std::system_error(errno, std::system_category(), "epoll_create1");
   }
   epoll_event event = {};
   event.events = (asked.read ? EPOLLIN | EPOLLRDHUP : 0u) | (asked.write ? EPOLLOUT : 0u);
   if (::epoll_ctl(instance, EPOLL_CTL_ADD, fd, &event) < 0) {
      const int error = errno;
      ::close(instance);
      fail(error);
   }
   try {
      readiness.emplace(impl.io, instance);
   } catch (...) {
      ::close(instance);
      throw;
   }
   impl.attachments.insert(this);
}

void FdWatch::State::close(EventLoop::Impl& impl) {
   active = false;
   stopWaiting();
   impl.attachments.erase(this);
   readiness.reset();
}

void FdWatch::State::loopGone() noexcept {
   active = false;
   readiness.reset();
}

void FdWatch::State::wait() {
   readiness->async_wait(asio::posix::stream_descriptor::wait_read,
                         [self = shared_from_this(), number = ++currentWait](
                            const asio::error_code& error) { self->woken(error, number); });
}

void FdWatch::State::stopWaiting() {
   ++currentWait;
   if (readiness) {
      asio::error_code ignored;
      readiness->cancel(ignored);
   }
}

std::optional<FdWatch::Events> FdWatch::State::ready() {
   epoll_event event = {};
   if (::epoll_wait(readiness->native_handle(), &event, 1, 0) != 1) {
      return std::nullopt;
   }
   const bool gone = (event.events & (EPOLLHUP | EPOLLERR)) != 0;
   Events result;
   result.read = asked.read && (gone || (event.events & (EPOLLIN | EPOLLRDHUP)) != 0);
   result.write = asked.write && (gone || (event.events & EPOLLOUT) != 0);
   result.hangUp = gone || (event.events & EPOLLRDHUP) != 0;
   return result;
}

void FdWatch::State::woken(const asio::error_code& error, std::uint64_t number) {
   if (number != currentWait || !active) {
      return;
   }
   const std::shared_ptr<EventLoop::Impl> impl = loop.lock();
   if (!impl) {
      return;
   }
   if (error) {
      active = false;
      throw std::system_error(error, "waiting for file descriptor " + std::to_string(fd));
   }
   const std::optional<Events> events = ready();
   if (!events) {
      wait();
      return;
   }
   // Only after the handler is there a new wait: one that began before would always end at once,
   // for what the handler is about to read.
   struct Again {
      State& state;
      ~Again() {
         state.inHandler = false;
         if (state.active && state.readiness) {
            state.wait();
         }
      }
   };
   const auto held = handler;
   const Again again{*this};
   inHandler = true;
   impl->execute([&] { (*held)(*events); });
}

FdWatch::FdWatch(EventLoop& loop, int fd, Events events, std::function<void(Events)> handler) {
   if (!handler) {
      throw std::invalid_argument("empty handler of a file descriptor watch");
   }
   loop._impl->assertUsableHere("FdWatch::FdWatch");
   _state = std::make_shared<State>(loop._impl, fd, events, std::move(handler));
   _state->open(*loop._impl);
   try {
      activeIs(true);
   } catch (...) {
      _state->close(*loop._impl);
      throw;
   }
}

FdWatch::~FdWatch() {
   if (const std::shared_ptr<EventLoop::Impl> impl = _state->loop.lock()) {
      impl->assertUsableHere("FdWatch::~FdWatch");
      _state->close(*impl);
   }
   _state->handler.reset();
}

void FdWatch::activeIs(bool active) {
   const std::shared_ptr<EventLoop::Impl> impl = _state->loop.lock();
   if (!impl) {
      return;
   }
   impl->assertUsableHere("FdWatch::activeIs");
   if (active == _state->active) {
      return;
   }
   _state->active = active;
   if (!active) {
      _state->stopWaiting();
   } else if (!_state->inHandler) {
      _state->wait();
   }
}

bool FdWatch::active() const noexcept {
   return _state->active;
}

int FdWatch::fd() const noexcept {
   return _state->fd;
}

} // namespace Platform
