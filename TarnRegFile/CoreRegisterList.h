#pragma once

#include <string_view>

#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// The registers of a core as its clients name them. What they name wrongly is a ShadowError.
///
/// A part of the library's clients; any thread that may use the list.
class CoreRegisterList {
public:
   CoreRegisterList(const String& coreName, const Ptr<HardwareRegisterFile>& registers)
      : _coreName(coreName), _registers(registers) {}

   const Ptr<HardwareRegisterFile>& registers() const noexcept { return _registers; }

   /// Throws ShadowError unknownRegister.
   const HardwareRegister& record(std::string_view regName) const {
      const HardwareRegister* const found = _registers->findRegister(regName);
      if (!found) [[unlikely]] {
         _throwUnknown(regName);
      }
      return *found;
   }

   /// Throws also notPermitted for one that is not writable.
   const HardwareRegister& writableRecord(std::string_view regName) const;

private:
   [[noreturn]] void _throwUnknown(std::string_view regName) const;

   const String _coreName;
   const Ptr<HardwareRegisterFile> _registers;
};

} // namespace TarnRegFile::Sable
