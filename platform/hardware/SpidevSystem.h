#pragma once

#include "platform/entity/Export.h"

namespace Hardware {

/// The system calls that SpidevBackend makes, so that a test can stand in for the kernel. They
/// return and set errno as the system's own do. Any thread.
class TARN_PLATFORM_API SpidevSystem {
public:
   virtual ~SpidevSystem();

   virtual int open(const char* path, int flags);
   virtual int ioctl(int fd, unsigned long request, void* argument);
   virtual int close(int fd);
};

} // namespace Hardware
