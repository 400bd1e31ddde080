#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>

namespace TestSupport {

/// A file that is in memory only, yet has a path that any code can open.
class MemoryFile {
public:
   explicit MemoryFile(std::string_view content) : _fd(::memfd_create("test", MFD_CLOEXEC)) {
      if (_fd < 0) {
         std::abort();
      }
      while (!content.empty()) {
         const ssize_t written = ::write(_fd, content.data(), content.size());
         if (written <= 0) {
            std::abort();
         }
         content.remove_prefix(static_cast<std::size_t>(written));
      }
   }
   ~MemoryFile() { ::close(_fd); }
   MemoryFile(const MemoryFile&) = delete;
   MemoryFile& operator=(const MemoryFile&) = delete;

   std::string path() const { return "/proc/self/fd/" + std::to_string(_fd); }

   std::string content() const {
      std::string text;
      char buffer[4096];
      off_t offset = 0;
      for (ssize_t got; (got = ::pread(_fd, buffer, sizeof(buffer), offset)) > 0; offset += got) {
         text.append(buffer, static_cast<std::size_t>(got));
      }
      return text;
   }

private:
   const int _fd;
};

} // namespace TestSupport
