#include "tools/tarnreg/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include "tools/tarnreg/Failure.h"

namespace TarnReg {

namespace {

[[noreturn]] void fail(const std::string& path, int error) {
   throw Failure(ExitCode::general,
                 fmt::format("cannot write {}: {}", path, std::generic_category().message(error)));
}

/// Writes all of it and closes; 0, or errno.
int writeAll(int fd, std::string_view text) {
   int error = 0;
   while (!text.empty() && error == 0) {
      const ssize_t written = ::write(fd, text.data(), text.size());
      if (written >= 0) {
         text.remove_prefix(static_cast<std::size_t>(written));
      } else if (errno != EINTR) {
         error = errno;
      }
   }
   return ::close(fd) == -1 && error == 0 ? errno : error;
}

/// The mode that a new file gets.
mode_t usualMode() {
   const mode_t mask = ::umask(0);
   ::umask(mask);
   return 0666 & ~mask;
}

} // namespace

void writeOutputFile(const std::string& path, const std::string& text) {
   struct stat status {};
   const bool there = ::stat(path.c_str(), &status) == 0;
   if (there && !S_ISREG(status.st_mode)) {
      const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
      if (const int error = fd == -1 ? errno : writeAll(fd, text)) {
         fail(path, error);
      }
      return;
   }
   if (there && ::access(path.c_str(), W_OK) == -1) {
      fail(path, errno); // that its directory may be written is not the point
   }
   // A link stays, and the file that it leads to is another one.
   const std::string target = there ? std::filesystem::canonical(path).string() : path;
   std::string other = target + ".XXXXXX";
   const int fd = ::mkostemp(other.data(), O_CLOEXEC);
   if (fd == -1) {
      fail(path, errno);
   }
   int error = ::fchmod(fd, there ? status.st_mode & 07777 : usualMode()) == -1 ? errno : 0;
   if (const int written = writeAll(fd, text); error == 0) {
      error = written;
   }
   if (error == 0 && ::rename(other.c_str(), target.c_str()) == -1) {
      error = errno;
   }
   if (error != 0) {
      ::unlink(other.c_str());
      fail(path, error);
   }
}

} // namespace TarnReg
