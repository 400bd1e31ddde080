#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

#include "platform/entity/Export.h"

namespace Platform {

/// A failed system call: carries its errno in the system category.
class TARN_PLATFORM_API ErrnoException : public std::system_error {
public:
   /// From the current errno.
   ErrnoException();
   explicit ErrnoException(int error);
   ErrnoException(int error, const std::string& text);
};

/// A value outside what a type allows: a wrong number, a bad string form, an access to the
/// alternative that a union does not hold, an unknown name.
class TARN_PLATFORM_API RangeError : public std::range_error {
public:
   using std::range_error::range_error;
};

/// Bytes of another process or of a file that are no message: damaged, cut short, or of another
/// kind than was asked for.
class TARN_PLATFORM_API MessageError : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

/// Throws std::system_error with `code` in the generic category: an error that this system itself
/// finds, as opposed to a failed system call.
[[noreturn]] TARN_PLATFORM_API void throwError(int code, const std::string& text);

/// Throws std::system_error with the current errno in the system category.
[[noreturn]] TARN_PLATFORM_API void throwErrno(const std::string& text);

} // namespace Platform
