#include "nimbo/WorkerPool.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "platform/entity/Errors.h"
#include "platform/entity/SignalsBlocked.h"

namespace Nimbo {

namespace {

constexpr int batch = 16;            // descriptors that a thread takes at a time
constexpr std::uint64_t wakeTag = 0; // the pool's own descriptor

TarnRegFile::Utils::UnixFdRes checked(int fd, const char* what) {
   if (fd < 0) {
      Platform::throwErrno(what);
   }
   return TarnRegFile::Utils::UnixFdRes(fd);
}

} // namespace

WorkerPool::WorkerPool(Handler handler)
   : _handler(std::move(handler)), _epoll(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
     _wake(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE), "eventfd")) {
   _control(EPOLL_CTL_ADD, _wake.fd(), wakeTag, EPOLLIN);
}

WorkerPool::~WorkerPool() {
   std::vector<std::thread> threads;
   {
      const std::scoped_lock lock(_mutex);
      _stopping = true;
      threads.swap(_threads);
   }
   // Nobody takes this back, so it wakes them all.
   ::eventfd_write(_wake.fd(), 1);
   for (std::thread& thread : threads) {
      thread.join();
   }
   _joinEnded();
}

void WorkerPool::sizeIs(std::size_t size) {
   _joinEnded();
   const Platform::SignalsBlocked blocked;
   const std::scoped_lock lock(_mutex);
   _size = size;
   while (_threads.size() < size) {
      _threads.emplace_back([this] { _run(); });
   }
   const std::size_t surplus = _threads.size() - size;
   for (std::size_t i = 0; i < surplus; ++i) {
      _posted.emplace_back([] {}); // has one of them look
   }
   if (surplus > 0) {
      ::eventfd_write(_wake.fd(), surplus);
   }
}

std::size_t WorkerPool::size() const {
   const std::scoped_lock lock(_mutex);
   return _size;
}

void WorkerPool::add(int fd, std::uint64_t tag, std::uint32_t events) {
   _control(EPOLL_CTL_ADD, fd, tag, events | EPOLLRDHUP | EPOLLET);
}

void WorkerPool::eventsAre(int fd, std::uint64_t tag, std::uint32_t events) {
   _control(EPOLL_CTL_MOD, fd, tag, events | EPOLLRDHUP | EPOLLET);
}

void WorkerPool::_control(int operation, int fd, std::uint64_t tag, std::uint32_t events) {
   ::epoll_event event = {};
   event.events = events;
   event.data.u64 = tag;
   if (::epoll_ctl(_epoll.fd(), operation, fd, &event) < 0) {
      Platform::throwErrno("epoll_ctl");
   }
}

void WorkerPool::post(std::function<void()> work) {
   {
      const std::scoped_lock lock(_mutex);
      _posted.push_back(std::move(work));
   }
   ::eventfd_write(_wake.fd(), 1);
}

void WorkerPool::_run() {
   std::array<::epoll_event, batch> events;
   std::array<Event, batch> readyEvents;
   while (_mayGoOn()) {
      const int count = ::epoll_wait(_epoll.fd(), events.data(), batch, -1);
      std::size_t ready = 0;
      bool isPosted = false;
      for (int i = 0; i < count; ++i) {
         const ::epoll_event& event = events[static_cast<std::size_t>(i)];
         if (event.data.u64 == wakeTag) {
            isPosted = true;
         } else {
            readyEvents[ready++] = {.tag = event.data.u64,
                                    .hangUp = (event.events & (EPOLLRDHUP | EPOLLHUP)) != 0};
         }
      }
      // Posted work is told of until somebody has taken it: first what only this thread knows of.
      if (ready > 0) {
         _handler(std::span(readyEvents).first(ready));
      }
      if (isPosted) {
         _takePosted();
      }
   }
}

bool WorkerPool::_mayGoOn() {
   const std::scoped_lock lock(_mutex);
   if (_stopping || _threads.size() <= _size) {
      return !_stopping;
   }
   const auto self = std::find_if(_threads.begin(), _threads.end(), [](const std::thread& thread) {
      return thread.get_id() == std::this_thread::get_id();
   });
   _ended.push_back(std::move(*self));
   _threads.erase(self);
   return false;
}

void WorkerPool::_takePosted() {
   std::function<void()> work;
   {
      const std::scoped_lock lock(_mutex);
      if (_stopping || _posted.empty()) {
         return;
      }
      work = std::move(_posted.front());
      _posted.pop_front();
   }
   ::eventfd_t count = 0;
   ::eventfd_read(_wake.fd(), &count);
   work();
}

void WorkerPool::_joinEnded() {
   std::vector<std::thread> ended;
   {
      const std::scoped_lock lock(_mutex);
      ended.swap(_ended);
   }
   for (std::thread& thread : ended) {
      thread.join();
   }
}

} // namespace Nimbo
