#pragma once

#include <string>

namespace Agent {

/// Why a device cannot be used: the register whose access failed, empty if it did not come to one,
/// and the reason.
struct Failure {
   std::string regName;
   std::string reason;
};

} // namespace Agent
