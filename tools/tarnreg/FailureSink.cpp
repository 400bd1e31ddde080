#include "tools/tarnreg/FailureSink.h"

#include <string_view>
#include <utility>

namespace TarnReg {

void FailureSink::write(const Platform::Trace::Record& record) {
   if (record.source == "TarnRegFile/TransportMethod" && record.function == "tryPerformIO") {
      // "TransportMethod error on register 'X': reason": the command names the register itself.
      const std::size_t reason = record.text.find("': ");
      _reason = reason == std::string_view::npos ? record.text : record.text.substr(reason + 3);
   }
   if (_next) {
      _next->write(record);
   }
}

std::string FailureSink::takeReason() {
   return std::exchange(_reason, std::string());
}

} // namespace TarnReg
