#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "tools/tarnsim/BusQueue.h"
#include "tools/tarnsim/TargetMemory.h"

namespace TarnSim {

/// One ioctl of the command, while it waits for its answer.
struct IoctlCall {
   std::uint32_t request;
   std::uint64_t argument;
   TargetMemory memory;
   int file; ///< the open file description that the command used; this process' own descriptor

   /// Whether the command still waits. To be asked behind every read of its memory, before what
   /// was read is believed: until then it may have come from another process with the same id.
   std::function<bool()> waits;
};

/// A device node of the board and the bus behind it: answers the node's ioctls. Used by several
/// threads at once; what uses the bus is called by one at a time.
class BusNode {
public:
   explicit BusNode(std::shared_ptr<BusQueue> queue) : _queue(std::move(queue)) {}
   virtual ~BusNode() = default;
   BusNode(const BusNode&) = delete;
   BusNode& operator=(const BusNode&) = delete;

   BusQueue& queue() const noexcept { return *_queue; }

   /// Whether the request takes time on the bus, and has to wait for its turn there.
   virtual bool usesBus(std::uint32_t request) const noexcept = 0;

   /// What the ioctl returns: a result, or the negative of an errno.
   virtual long ioctl(const IoctlCall& call) = 0;

private:
   std::shared_ptr<BusQueue> _queue;
};

} // namespace TarnSim
