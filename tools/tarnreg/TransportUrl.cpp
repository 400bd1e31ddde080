#include "tools/tarnreg/TransportUrl.h"

#include <cstdlib>

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"

namespace TarnReg {

TransportUrl::TransportUrl(std::string_view text) {
   const std::size_t colon = text.find(':');
   _scheme = text.substr(0, colon);
   if (colon != std::string_view::npos) {
      _rest = text.substr(colon + 1);
   }
   if (_scheme != "mock" || colon == std::string_view::npos) {
      throw Failure(ExitCode::usage,
                    fmt::format("transport '{}' is not known; there is mock:[VALUES-FILE]", text));
   }
}

Platform::Ptr<TarnRegFile::BaseTransportDescriptor> TransportUrl::descriptor() const {
   if (!_rest.empty()) {
      ::setenv("REG_VALUES_FILE", _rest.c_str(), 1);
   }
   return TarnRegFile::mockTransportDescriptorFactory();
}

} // namespace TarnReg
