#pragma once

#include <deque>
#include <functional>
#include <mutex>

namespace TarnSim {

/// The turns on one bus. There is no thread of its own: whoever finds the bus idle does his work
/// and then all that others left meanwhile; whoever finds it busy leaves his work and goes. So
/// each bus occupies at most one thread, however many wait for it, and an idle bus costs no
/// change of threads.
class BusQueue {
public:
   using Work = std::function<void()>;

   /// Does `work`, or leaves it to the thread that is at it. `work` must not throw.
   void run(Work work) {
      std::unique_lock lock(_mutex);
      _waiting.push_back(std::move(work));
      if (_busy) {
         return;
      }
      _busy = true;
      while (!_waiting.empty()) {
         const Work next = std::move(_waiting.front());
         _waiting.pop_front();
         lock.unlock();
         next();
         lock.lock();
      }
      _busy = false;
   }

private:
   std::mutex _mutex;
   std::deque<Work> _waiting;
   bool _busy = false;
};

} // namespace TarnSim
