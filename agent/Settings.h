#pragma once

#include <chrono>
#include <cstddef>

#include "agent/TableAccess.h"

namespace Agent {

/// How a core is looked after. A plain value.
struct Settings {
   /// How often a register is read to see whether the device is still there; 0 for never.
   std::chrono::milliseconds checkInterval{1000};

   /// How long after a failed probe the next one begins: at first, and at most. Doubled each time.
   std::chrono::milliseconds retryFirst{500};
   std::chrono::milliseconds retryMost{30'000};

   /// How long an asynchronous device may go without any answer while it is probed or read.
   std::chrono::milliseconds answerTimeout{30'000};

   /// How often the tables are looked through for damage that nobody has met yet; 0 for never.
   std::chrono::milliseconds auditInterval{60'000};

   /// Who else may use the tables.
   AccessRights access;

   /// Outcomes of ordered operations that are kept; the oldest go first.
   std::size_t keptOperations = 1024;
};

} // namespace Agent
