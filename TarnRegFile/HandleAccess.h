#pragma once

#include <cstdint>
#include <typeinfo>

#include "platform/hardware/HardwareRegister.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// What a transport offers, beside what every transport has to, so that accesses by RegisterHandle
/// need not resolve the name again. One that does not offer it is accessed by name. It is a class
/// of its own so that the virtual slots of BaseTransportMethodImpl stay what they are for
/// transports compiled elsewhere.
///
/// An implementation does exactly what its access by name does once it has the record: the same
/// checks in the same order, the same texts, which speak of `regName`, and the same accesses.
class TARN_API HandleAccess {
public:
   HandleAccess(const HandleAccess&) = delete;
   HandleAccess& operator=(const HandleAccess&) = delete;

   /// Reads the register of that record.
   virtual std::uint32_t regReadResolved(const String& regName, const HardwareRegister& reg) = 0;

   /// Writes the register of that record.
   virtual void regWriteResolved(const String& regName, const HardwareRegister& reg,
                                 std::uint32_t value) = 0;

   /// The class that this was written for. A class derived from that one may do something else by
   /// name, so it is accessed by name unless it says its own type here.
   virtual const std::type_info& handleAccessType() const noexcept = 0;

protected:
   HandleAccess() = default;
   virtual ~HandleAccess();
};

} // namespace TarnRegFile
