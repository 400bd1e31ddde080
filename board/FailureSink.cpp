#include "board/FailureSink.h"

#include <utility>

#include <fmt/format.h>

namespace Board {

void FailureSink::write(const Platform::Trace::Record& record) {
   if (record.source == "TarnRegFile/TransportMethod" && record.function == "tryPerformIO") {
      _reason = record.text;
   }
   if (_next) {
      _next->write(record);
   }
}

std::string FailureSink::takeReason(std::string_view name) {
   std::string reason = std::exchange(_reason, std::string());
   // "TransportMethod error on register 'X': reason": the command names the register itself. A
   // name may hold anything, so it is looked for as a whole.
   const std::string prefix = fmt::format("TransportMethod error on register '{}': ", name);
   return reason.starts_with(prefix) ? reason.substr(prefix.size()) : reason;
}

} // namespace Board
