#include "TarnRegFile/CoreRegisterList.h"

#include <fmt/format.h>

#include "TarnRegFile/ShadowError.h"

namespace TarnRegFile::Sable {

namespace {

constexpr const char* unknownRegister = "core '{}' has no register '{}'";
constexpr const char* notWritable = "register '{}' of core '{}' is not writable";

} // namespace

const HardwareRegister& CoreRegisterList::writableRecord(std::string_view regName) const {
   const HardwareRegister& found = record(regName);
   if (!found.writable) {
      throw ShadowError(ShadowError::Kind::notPermitted,
                        fmt::format(notWritable, regName, _coreName));
   }
   return found;
}

void CoreRegisterList::_throwUnknown(std::string_view regName) const {
   throw ShadowError(ShadowError::Kind::unknownRegister,
                     fmt::format(unknownRegister, _coreName, regName));
}

} // namespace TarnRegFile::Sable
