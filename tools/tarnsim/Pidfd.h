#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace TarnSim {

// The C library has no names for these system calls yet.

inline int pidfdOpen(pid_t process, unsigned flags = 0) noexcept {
   return static_cast<int>(::syscall(SYS_pidfd_open, process, flags));
}

/// A duplicate of the descriptor `fd` of another process.
inline int pidfdGetfd(int pidfd, int fd) noexcept {
   return static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd, fd, 0));
}

} // namespace TarnSim
