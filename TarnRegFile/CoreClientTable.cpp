#include "TarnRegFile/CoreClientTable.h"

#include <fmt/format.h>

#include "TarnRegFile/ShadowError.h"

namespace TarnRegFile::Sable {

namespace {

constexpr const char* notPermitted = "core '{}': {}";
constexpr const char* damaged = "core '{}': {}";

} // namespace

void throwDamaged(const String& coreName, const char* what) {
   throw ShadowError(ShadowError::Kind::damaged, fmt::format(damaged, coreName, what));
}

void throwNotPermitted(const String& coreName, const std::system_error& error) {
   if (error.code() == std::errc::permission_denied ||
       error.code() == std::errc::read_only_file_system) {
      throw ShadowError(ShadowError::Kind::notPermitted,
                        fmt::format(notPermitted, coreName, error.what()));
   }
}

} // namespace TarnRegFile::Sable
