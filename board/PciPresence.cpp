#include "board/PciPresence.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>

#include "TarnRegFile/Utils.h"

namespace Board {

namespace {

constexpr std::string_view resource = "resource";
constexpr std::string_view configuration = "config";

} // namespace

std::optional<bool> pciIsThere(const std::string& path) {
   const std::size_t slash = path.rfind('/');
   if (slash == std::string::npos ||
       !std::string_view(path).substr(slash + 1).starts_with(resource)) {
      return std::nullopt;
   }
   const std::string space = path.substr(0, slash + 1) + std::string(configuration);
   const TarnRegFile::Utils::UnixFdRes file(::open(space.c_str(), O_RDONLY | O_CLOEXEC));
   if (file.fd() < 0) {
      // The system forgets a device that was taken out, and its resource with it. Without a
      // configuration space the file only stands in for a device.
      const bool isForgotten = errno == ENOENT && ::access(path.c_str(), F_OK) != 0;
      return isForgotten ? std::optional(false) : std::nullopt;
   }
   std::array<std::uint8_t, 2> vendor{};
   if (::pread(file.fd(), vendor.data(), vendor.size(), 0) != static_cast<ssize_t>(vendor.size())) {
      return std::nullopt;
   }
   return vendor[0] != 0xff || vendor[1] != 0xff;
}

} // namespace Board
