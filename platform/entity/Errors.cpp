#include "platform/entity/Errors.h"

#include <cerrno>

namespace Platform {

ErrnoException::ErrnoException() : ErrnoException(errno) {}

ErrnoException::ErrnoException(int error) : std::system_error(error, std::system_category()) {}

ErrnoException::ErrnoException(int error, const std::string& text)
   : std::system_error(error, std::system_category(), text) {}

void throwError(int code, const std::string& text) {
   throw std::system_error(code, std::generic_category(), text);
}

void throwErrno(const std::string& text) {
   throw std::system_error(errno, std::system_category(), text);
}

} // namespace Platform
