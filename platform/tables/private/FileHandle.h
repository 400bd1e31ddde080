#pragma once

#include <unistd.h>

#include <utility>

namespace Platform::Tables {

/// Owns a file descriptor; negative means none.
class FileHandle {
public:
   FileHandle() noexcept = default;
   explicit FileHandle(int fd) noexcept : _fd(fd) {}
   ~FileHandle() { reset(); }

   FileHandle(FileHandle&& other) noexcept : _fd(other.release()) {}
   FileHandle& operator=(FileHandle&& other) noexcept {
      if (this != &other) {
         reset();
         _fd = other.release();
      }
      return *this;
   }

   int fd() const noexcept { return _fd; }
   bool isOpen() const noexcept { return _fd >= 0; }
   int release() noexcept { return std::exchange(_fd, -1); }

   void reset() noexcept {
      if (_fd >= 0) {
         ::close(std::exchange(_fd, -1));
      }
   }

private:
   int _fd = -1;
};

} // namespace Platform::Tables
