#include "platform/hardware/SpidevSystem.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Hardware {

SpidevSystem::~SpidevSystem() = default;

int SpidevSystem::open(const char* path, int flags) {
   return ::open(path, flags);
}

int SpidevSystem::ioctl(int fd, unsigned long request, void* argument) {
   return ::ioctl(fd, request, argument);
}

int SpidevSystem::close(int fd) {
   return ::close(fd);
}

} // namespace Hardware
