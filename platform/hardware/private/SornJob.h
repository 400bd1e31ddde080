#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>

#include "platform/hardware/SornOp.h"
#include "platform/hardware/SornStatus.h"

namespace Hardware {

class SornRequest;

/// What the worker knows of a submitted request: a copy of what it is to do, and where the outcome
/// goes. The worker never sees the request or the client's memory.
struct SornJob {
   // Set before the job is queued.
   SornOp op;
   std::optional<std::chrono::steady_clock::time_point> deadline;
   std::uint64_t serial = 0;

   // Under the bus's mutex.
   bool isQueued = false;
   bool isAbandoned = false; ///< nobody waits for it any more: not worth beginning

   // The worker's, until it has handed the job back.
   SornStatus status = SornStatus::pending;
   std::int32_t error = 0;
   std::uint32_t value = 0;

   /// Who waits for it, or null. Only for the event loop's thread.
   SornRequest* request = nullptr;
};

/// A client's place in the turn of a bus.
struct SornClient {
   std::deque<std::shared_ptr<SornJob>> queue; // under the bus's mutex
};

} // namespace Hardware
