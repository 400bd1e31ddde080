#include "platform/hardware/DeviceNode.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Hardware {

DeviceNode::DeviceNode(std::string path) : _path(std::move(path)) {}

DeviceNode::~DeviceNode() {
   close();
}

bool DeviceNode::isCurrent() noexcept {
   if (_fd < 0) {
      return false;
   }
   struct ::stat found = {};
   if (::stat(_path.c_str(), &found) == 0 && found.st_dev == _fileSystem &&
       found.st_ino == _inode) {
      return true;
   }
   close();
   return false;
}

int DeviceNode::open() noexcept {
   close();
   do {
      _fd = ::open(_path.c_str(), O_RDWR | O_CLOEXEC);
   } while (_fd < 0 && errno == EINTR);
   struct ::stat found = {};
   if (_fd < 0 || ::fstat(_fd, &found) < 0) {
      const int error = errno;
      close();
      return error;
   }
   _fileSystem = found.st_dev;
   _inode = found.st_ino;
   return 0;
}

void DeviceNode::close() noexcept {
   if (_fd >= 0) {
      ::close(std::exchange(_fd, -1));
   }
}

} // namespace Hardware
