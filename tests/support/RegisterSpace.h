#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace TestSupport {

/// Stands in for a device's register space: a file in memory that has a path and can be mapped.
/// A device that vanishes is a file that shrinks under its mapping; whole pages of it then answer
/// with SIGBUS. Words are read and set through the file, past any mapping.
class RegisterSpace {
public:
   explicit RegisterSpace(std::size_t bytes) : _fd(::memfd_create("registers", MFD_CLOEXEC)) {
      if (_fd < 0) {
         std::abort();
      }
      sizeIs(bytes);
   }
   ~RegisterSpace() { ::close(_fd); }
   RegisterSpace(const RegisterSpace&) = delete;
   RegisterSpace& operator=(const RegisterSpace&) = delete;

   int fd() const { return _fd; }
   std::string path() const { return "/proc/self/fd/" + std::to_string(_fd); }

   /// Shrinks or grows it; what is added is zero. Safe in a signal handler.
   void sizeIs(std::size_t bytes) {
      if (::ftruncate(_fd, static_cast<off_t>(bytes)) != 0) {
         std::abort();
      }
   }

   std::uint32_t word(std::size_t offset) const {
      std::uint32_t value = 0;
      if (::pread(_fd, &value, sizeof(value), static_cast<off_t>(offset)) != sizeof(value)) {
         std::abort();
      }
      return value;
   }

   void wordIs(std::size_t offset, std::uint32_t value) {
      if (::pwrite(_fd, &value, sizeof(value), static_cast<off_t>(offset)) != sizeof(value)) {
         std::abort();
      }
   }

   /// All whole words, in order.
   std::vector<std::uint32_t> words() const {
      const off_t size = ::lseek(_fd, 0, SEEK_END);
      std::vector<std::uint32_t> all(static_cast<std::size_t>(size) / sizeof(std::uint32_t));
      const std::size_t bytes = all.size() * sizeof(std::uint32_t);
      if (::pread(_fd, all.data(), bytes, 0) != static_cast<ssize_t>(bytes)) {
         std::abort();
      }
      return all;
   }

private:
   const int _fd;
};

} // namespace TestSupport
