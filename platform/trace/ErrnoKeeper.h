#pragma once

#include <cerrno>

namespace Platform::Trace {

/// Gives errno back the value it had, at the end of the scope: what is traced is often the errno
/// that the caller goes on to use.
class ErrnoKeeper {
public:
   ErrnoKeeper() noexcept : _errno(errno) {}
   ~ErrnoKeeper() { errno = _errno; }

   ErrnoKeeper(const ErrnoKeeper&) = delete;
   ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
   const int _errno;
};

} // namespace Platform::Trace
