#include "TarnRegFile/Utils.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <stdexcept>
#include <sys/file.h>
#include <unistd.h>

namespace TarnRegFile::Utils {

namespace {

constexpr const char* invalidFd = "Invalid fd";
constexpr const char* unsupportedLockMode = "Unsupported lock mode";
constexpr const char* cannotUnlock = "Cannot unlock flock on constructor";
constexpr const char* flockError = "flock error: ";

constexpr useconds_t eagainPause = 1000; // microseconds

} // namespace

void UnixFdRes::_mov(UnixFdRes& other) noexcept {
   _destruct();
   _fd = other._fd;
   other._fd = -1;
}

void UnixFdRes::_destruct() noexcept {
   if (_fd >= 0) {
      ::close(_fd);
      _fd = -1;
   }
}

UnixFlockRes::UnixFlockRes(int fd, int mode) {
   if (fd < 0) {
      throw std::runtime_error(invalidFd);
   }
   if ((mode & (LOCK_SH | LOCK_EX)) == 0) {
      throw std::runtime_error(unsupportedLockMode);
   }
   if ((mode & LOCK_UN) != 0) {
      throw std::runtime_error(cannotUnlock);
   }
   if (syscallAutoRetry([fd, mode]() -> long { return ::flock(fd, mode); }, true, true) < 0) {
      throw std::runtime_error(flockError + std::string(std::strerror(errno)));
   }
   _fd = fd;
}

UnixFlockRes::~UnixFlockRes() {
   if (_fd >= 0) {
      ::flock(_fd, LOCK_UN);
   }
}

long syscallAutoRetry(const std::function<long()>& call, bool retryOnEagain, bool retryOnEintr) {
   for (;;) {
      const long result = call();
      if (result >= 0) {
         return result;
      }
      if (errno == EINTR && retryOnEintr) {
         continue;
      }
      if (errno == EAGAIN && retryOnEagain) {
         ::usleep(eagainPause);
         continue;
      }
      return result;
   }
}

std::istream& getline_lea(std::istream& stream, std::string& buffer, std::string_view& line) {
   std::getline(stream, buffer);
   if (stream.fail()) {
      line = {};
      return stream;
   }
   line = buffer;
   if (!line.empty() && line.back() == '\r') {
      line.remove_suffix(1);
   }
   return stream;
}

bool tokenize(std::string_view text, std::size_t& pos, std::string_view& token, char delim) {
   if (pos >= text.size()) {
      return false;
   }
   std::size_t end = text.find(delim, pos);
   if (end == std::string_view::npos) {
      end = text.size();
   }
   token = text.substr(pos, end - pos);
   pos = end + 1;
   return true;
}

std::string errnoMsg() {
   const int number = errno;
   return fmt::format("{} ({})", number, std::strerror(number));
}

std::uint32_t strtouint32_checked(const char* str, bool& ok) {
   ok = false;
   errno = 0;
   char* end = nullptr;
   const unsigned long value = std::strtoul(str, &end, 10);
   if (end == str || *end != '\0' || errno == ERANGE ||
       value > std::numeric_limits<std::uint32_t>::max()) {
      return 0;
   }
   ok = true;
   return static_cast<std::uint32_t>(value);
}

} // namespace TarnRegFile::Utils
