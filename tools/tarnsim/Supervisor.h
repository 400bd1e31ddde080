#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "TarnRegFile/Utils.h"
#include "tools/tarnsim/BusNode.h"

namespace TarnSim {

/// Answers the ioctls of the command's processes that wait at the listener: those on the board's
/// device nodes by the node's rules, all others by letting them go on to the kernel.
///
/// There is one thread more than there are buses, and all of them take whatever comes next. A bus
/// keeps one thread busy at most (see BusQueue), so one is always free for the next ioctl, however
/// slow some buses are.
class Supervisor {
public:
   /// `buses` is how many ioctls can take time at once.
   Supervisor(TarnRegFile::Utils::UnixFdRes listener, std::size_t buses);

   /// Stops.
   ~Supervisor();
   Supervisor(const Supervisor&) = delete;
   Supervisor& operator=(const Supervisor&) = delete;

   /// Has ioctls on the file that `file` is open at answered by `node`, which must outlive this.
   /// Before start() only. Throws Failure.
   void nodeIs(int file, BusNode& node);

   void start();

   /// Ends the threads; what waits at the listener fails. Returns false if a thread is held up by
   /// a slow bus: it then still runs, and the process had better end.
   bool stop();

private:
   struct Waiting;
   using FileId = std::pair<dev_t, ino_t>;

   void _serve();
   void _answer(const std::shared_ptr<Waiting>& waiting);
   void _send(Waiting& waiting, long result, bool goOn);
   bool _waits(std::uint64_t id) const;
   TarnRegFile::Utils::UnixFdRes _fileOf(const Waiting& waiting);

   const TarnRegFile::Utils::UnixFdRes _listener;
   const std::size_t _notificationSize;
   const std::size_t _responseSize;
   std::map<FileId, BusNode*> _nodes;
   std::vector<std::thread> _threads;
   std::unique_ptr<std::atomic<bool>[]> _ended; // one a thread
   std::atomic<bool> _stopping{false};
   std::atomic<bool> _refusalTold{false};
};

} // namespace TarnSim
