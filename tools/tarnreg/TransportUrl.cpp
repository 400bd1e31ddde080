#include "tools/tarnreg/TransportUrl.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

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

std::string TransportUrl::valuesFile() const {
   const char* fromEnvironment = std::getenv("REG_VALUES_FILE");
   return !_rest.empty() || !fromEnvironment ? _rest : std::string(fromEnvironment);
}

void TransportUrl::checkValuesFile(bool writing) const {
   const std::string path = valuesFile();
   if (path.empty()) {
      return;
   }
   struct stat status {};
   bool good = ::stat(path.c_str(), &status) == 0;
   if (good && S_ISDIR(status.st_mode)) {
      errno = EISDIR;
      good = false;
   } else if (good) {
      good = ::access(path.c_str(), writing ? R_OK | W_OK : R_OK) == 0;
   } else if (errno == ENOENT) {
      // It will be made.
      const std::filesystem::path directory = std::filesystem::path(path).parent_path();
      good = ::access(directory.empty() ? "." : directory.c_str(), W_OK) == 0;
   }
   if (!good) {
      throw Failure(ExitCode::deviceError, fmt::format("values file {}: {}", path,
                                                       std::generic_category().message(errno)));
   }
}

Platform::Ptr<TarnRegFile::BaseTransportDescriptor> TransportUrl::descriptor() const {
   if (!_rest.empty()) {
      ::setenv("REG_VALUES_FILE", _rest.c_str(), 1);
   }
   return TarnRegFile::mockTransportDescriptorFactory();
}

} // namespace TarnReg
