#pragma once

#include <sys/types.h>

#include <string>

#include "platform/entity/Export.h"

namespace Hardware {

/// A device node that is kept open over many uses, and given up as soon as it is not the one at its
/// path any more, or there is none.
///
/// The second matters too: a driver of the kernel that is told to leave its device first takes the
/// node away and then waits until nobody has it open. Who kept it would hold the driver up for
/// ever, and keep whatever comes next from coming.
///
/// Of one thread at a time.
class TARN_PLATFORM_API DeviceNode {
public:
   /// Opens nothing.
   explicit DeviceNode(std::string path);
   ~DeviceNode();
   DeviceNode(const DeviceNode&) = delete;
   DeviceNode& operator=(const DeviceNode&) = delete;

   const std::string& path() const noexcept { return _path; }

   /// The open descriptor, or -1.
   int fd() const noexcept { return _fd; }

   /// Whether the node is open and still the one at its path. If it is not, it is closed.
   bool isCurrent() noexcept;

   /// Opens the node at the path for reading and writing, in place of one that was open, and keeps
   /// it from child processes. 0, or the errno that it failed with.
   int open() noexcept;

   void close() noexcept;

private:
   const std::string _path;
   int _fd = -1;
   ::dev_t _fileSystem = 0; // which file it is
   ::ino_t _inode = 0;
};

} // namespace Hardware
