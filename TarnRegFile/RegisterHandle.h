#pragma once

#include <cstdint>

#include "platform/hardware/HardwareRegister.h"
#include "platform/hardware/HardwareRegisterFile.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

class HandleAccess;
class TransportMethod;

/// A register of one TransportMethod whose name has been resolved: the fast way for a caller that
/// accesses the same registers again and again.
///
///    const RegisterHandle speed = device->regHandle("FAN[0]_TACH");
///    for (;;) {
///       use(device->regReadByHandle(speed));
///    }
///
/// A value, copied and moved at will, at the price of the name's copy. It is good for accesses of
/// the TransportMethod that made it, as long as that one has the transport it had then and its
/// register list has the same record under the name; a list that was changed elsewhere is noticed,
/// and does no harm. Used for anything else it is refused with an exception and nothing is
/// accessed. It does not keep the TransportMethod, and may outlive it.
///
/// Used on the thread of its TransportMethod.
class TARN_API RegisterHandle {
public:
   /// A handle of no register, which every access refuses.
   RegisterHandle() = default;

   /// The name that was resolved; empty for a handle of no register.
   const String& name() const noexcept { return _name; }

   /// What the register list said of it.
   const HardwareRegister& record() const noexcept { return _record; }

private:
   friend class TransportMethod;

   // In the order in which an access looks at them.
   std::uint64_t _binding = 0; // the transport's; 0 is none's
   // When the record was last found to be the list's. The reference keeps the list's address from
   // being another one's.
   mutable Ptr<const HardwareRegisterFile> _list;
   mutable std::uint64_t _listVersion = 0;
   HandleAccess* _access = nullptr; // null: by name
   HardwareRegister _record;
   String _name;
};

} // namespace TarnRegFile
