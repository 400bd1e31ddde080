#include "platform/entity/SignalWatch.h"

#include <algorithm>
#include <array>
#include <asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "platform/entity/private/EventLoopImpl.h"

namespace Platform {

namespace {

// What the process did about each signal before the first watch for it. Of the process, like the
// signals themselves. Asio alone would leave the default behind, and so, for a program that
// ignored a signal, a process that dies of it.
class Dispositions {
public:
   static Dispositions& instance() {
      static Dispositions dispositions;
      return dispositions;
   }

   // Adds `signal` to `set`.
   void added(asio::signal_set& set, int signal) {
      if (signal <= 0 || static_cast<std::size_t>(signal) >= _entries.size()) {
         throw std::system_error(EINVAL, std::system_category(), _what(signal));
      }
      const std::lock_guard lock(_mutex);
      Entry& entry = _entries[static_cast<std::size_t>(signal)];
      struct sigaction before = {};
      ::sigaction(signal, nullptr, &before);
      asio::error_code error;
      set.add(signal, error);
      if (error) {
         throw std::system_error(error, _what(signal));
      }
      if (entry.watches++ == 0) {
         entry.before = before;
         struct sigaction now = {};
         ::sigaction(signal, nullptr, &now);
         // Asio leaves it out, and so would have calls on threads that know nothing of loops and
         // signals fail with EINTR.
         now.sa_flags |= SA_RESTART;
         ::sigaction(signal, &now, nullptr);
      }
   }

   void removed(asio::signal_set& set, int signal) noexcept {
      const std::lock_guard lock(_mutex);
      asio::error_code ignored;
      Entry& entry = _entries[static_cast<std::size_t>(signal)];
      if (--entry.watches > 0) {
         set.remove(signal, ignored);
         return;
      }
      // Between Asio's return to the default and our return to what was before, a signal must
      // not end the process.
      sigset_t blocked;
      sigset_t mask;
      ::sigemptyset(&blocked);
      ::sigaddset(&blocked, signal);
      ::pthread_sigmask(SIG_BLOCK, &blocked, &mask);
      set.remove(signal, ignored);
      ::sigaction(signal, &entry.before, nullptr);
      ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
   }

private:
   struct Entry {
      int watches = 0;
      struct sigaction before = {};
   };

   static std::string _what(int signal) { return "cannot watch signal " + std::to_string(signal); }

   std::mutex _mutex;
   std::array<Entry, NSIG> _entries;
};

} // namespace

struct SignalWatch::State final : EventLoop::Impl::Attachment,
                                  std::enable_shared_from_this<SignalWatch::State> {
   State(const std::shared_ptr<EventLoop::Impl>& loop_, std::function<void(int)> handler_)
      : loop(loop_),
        handler(std::make_shared<const std::function<void(int)>>(std::move(handler_))) {}

   void open(EventLoop::Impl& impl, const std::vector<int>& asked);
   void close() noexcept;
   void loopGone() noexcept override { close(); }
   void wait();
   void received(const asio::error_code& error, int signal);

   std::weak_ptr<EventLoop::Impl> loop;
   // Apart from the state, since operations that Asio has yet to end hold that one.
   std::shared_ptr<const std::function<void(int)>> handler;
   std::vector<int> signals; // those taken
   std::optional<asio::signal_set> set;
};

void SignalWatch::State::open(EventLoop::Impl& impl, const std::vector<int>& asked) {
   set.emplace(impl.io);
   try {
      signals.reserve(asked.size());
      for (const int signal : asked) {
         if (std::find(signals.begin(), signals.end(), signal) == signals.end()) {
            Dispositions::instance().added(*set, signal);
            signals.push_back(signal);
         }
      }
      wait();
      impl.attachments.insert(this);
   } catch (...) {
      close();
      throw;
   }
}

void SignalWatch::State::close() noexcept {
   if (set) {
      for (const int signal : signals) {
         Dispositions::instance().removed(*set, signal);
      }
      signals.clear();
      set.reset();
   }
}

void SignalWatch::State::wait() {
   set->async_wait([self = shared_from_this()](const asio::error_code& error, int signal) {
      self->received(error, signal);
   });
}

void SignalWatch::State::received(const asio::error_code& error, int signal) {
   const std::shared_ptr<EventLoop::Impl> impl = loop.lock();
   // A closed watch has no set, even if this signal came before it was closed.
   if (!impl || !set || error) {
      return;
   }
   // Before the handler, which may throw.
   wait();
   const auto held = handler;
   impl->execute([&] { (*held)(signal); });
}

SignalWatch::SignalWatch(EventLoop& loop, const std::vector<int>& signals,
                         std::function<void(int)> handler) {
   if (signals.empty()) {
      throw std::invalid_argument("signal watch without a signal");
   }
   if (!handler) {
      throw std::invalid_argument("empty handler of a signal watch");
   }
   loop._impl->assertUsableHere("SignalWatch::SignalWatch");
   _state = std::make_shared<State>(loop._impl, std::move(handler));
   _state->open(*loop._impl, signals);
}

SignalWatch::SignalWatch(EventLoop& loop, std::initializer_list<int> signals,
                         std::function<void(int)> handler)
   : SignalWatch(loop, std::vector<int>(signals), std::move(handler)) {}

SignalWatch::~SignalWatch() {
   if (const std::shared_ptr<EventLoop::Impl> impl = _state->loop.lock()) {
      impl->assertUsableHere("SignalWatch::~SignalWatch");
      impl->attachments.erase(_state.get());
      _state->close();
   }
   _state->handler.reset();
}

} // namespace Platform
