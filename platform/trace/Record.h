#pragma once

#include <chrono>
#include <string_view>

namespace Platform::Trace {

/// One trace record as the sinks get it. The texts are the bytes as they were traced, control
/// characters included, and are valid only while the record is being written.
struct Record {
   std::string_view source;
   std::string_view function;
   int level;
   std::string_view text;
   std::chrono::system_clock::time_point time;
};

} // namespace Platform::Trace
