#include "tools/tarnreg/ValuesFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"

namespace TarnReg {

void checkValuesFile(const std::string& path, bool writing) {
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

} // namespace TarnReg
