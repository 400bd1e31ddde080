#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "platform/entity/Export.h"

namespace Platform {

/// Runs callables one at a time on one thread: posted work, and the handlers of the timers, fd
/// watches and signal watches made on the loop (Timer.h, FdWatch.h, SignalWatch.h).
///
/// Owned by the program, which makes one for each thread that is to have one. The loop belongs to
/// the thread that runs it: the one that made it, until another one runs it. Only post(), stop(),
/// current() and isOwnThread() may be called from other threads; everything else is for the loop's
/// own thread, or for whoever holds the loop while nobody runs it. Debug builds end the process
/// when a timer or watch is used from another thread while its loop runs.
///
/// A handler may do anything but destroy its loop: post, start, stop and destroy timers and
/// watches, its own included, and throw. Nothing cancelled ever fires, even if it was due and in
/// the queue at the time. An exception leaves the call that was running the loop; the rest of the
/// work stays in place for the next one.
class TARN_PLATFORM_API EventLoop {
public:
   /// Throws std::system_error if the system gives no descriptors.
   EventLoop();

   /// Destroys work that was posted and never ran, without running it. Timers and watches may
   /// outlive the loop; they never fire again. Fatal while the loop runs.
   ~EventLoop();

   EventLoop(const EventLoop&) = delete;
   EventLoop& operator=(const EventLoop&) = delete;

   /// Runs until stop(), or until there is nothing left to wait for: no posted work, no running
   /// timer, no active watch. Returns how many callables ran.
   ///
   /// Throws what a callable throws, and std::logic_error if the loop is already running; inside
   /// one of its own handlers the other three may be used.
   std::size_t run();

   /// Runs what is ready, and what that makes ready, without waiting; timers whose time has come
   /// are ready. Returns how many callables ran. Throws as run() does.
   std::size_t poll();

   /// Runs until `duration` has passed, or until stop(). Waits to the end even if there is nothing
   /// to wait for, as another thread may post. Returns how many callables ran. Throws as run().
   std::size_t runFor(std::chrono::nanoseconds duration);

   /// Runs until `predicate` holds, which gives true, or until `timeout` has passed or stop(),
   /// which gives false. The predicate is asked before anything else, after each callable, and
   /// every few milliseconds, so that it may depend on other threads and processes. Throws as
   /// run() does, and what the predicate throws.
   bool runUntil(const std::function<bool()>& predicate, std::chrono::nanoseconds timeout);

   /// Makes the call that is running the loop return after the callable under way, those nested in
   /// it included; if none is running, the next one returns at once. What has not run stays. Any
   /// thread.
   void stop();

   /// Has `work` called on the loop's thread. Work runs in the order of posting, never inside this
   /// call. Any thread, also before the loop first runs. Throws std::invalid_argument if `work` is
   /// empty.
   void post(std::function<void()> work);

   /// While true, run() does not return for want of work: for a thread whose work is all posted
   /// from elsewhere. Initially false.
   void keepRunningIs(bool keepRunning);

   /// Whether the calling thread is the one the loop belongs to. Any thread.
   bool isOwnThread() const noexcept;

   /// The loop whose callable is running on the calling thread, the innermost one if several are;
   /// null outside of one. Any thread.
   static EventLoop* current() noexcept;

private:
   friend class Timer;
   friend class FdWatch;
   friend class SignalWatch;

   class Impl;
   // Shared so that timers and watches can tell whether their loop is still there; nobody else
   // holds it for longer than a call.
   std::shared_ptr<Impl> _impl;
};

} // namespace Platform
