#pragma once

#include "platform/hardware/SableCoreBase.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

using Hardware::CoreRegisterDescriptor;
using Hardware::Generation;
using Hardware::SableCoreBase;

/// The model of a hardware core whose registers are those of a register list, in the order of
/// their addresses. A register that the list says is not writable is marked so.
///
/// One name stands for each address: the one that the list has for it. Other names of the address
/// are traced at level 1 and left out, since all that is kept of a core's registers is kept by
/// address.
///
/// An entity, held through Ptr, used on its own thread. The list is read once, at construction.
class TARN_API SableCore : public SableCoreBase {
public:
   /// Throws std::system_error EINVAL (generic category) when `registerFile` or
   /// `transportDescriptor` is null.
   SableCore(const String& name, const Ptr<HardwareRegisterFile>& registerFile,
             const Ptr<BaseTransportDescriptor>& transportDescriptor);
   ~SableCore() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }
};

/// A new core of the null generation.
TARN_API Ptr<SableCore> sableCoreFactory(const String& name,
                                         const Ptr<HardwareRegisterFile>& registerFile,
                                         const Ptr<BaseTransportDescriptor>& transportDescriptor);

/// How `core` is reached; null when it has no descriptor, or one that is none of this library's.
TARN_API Ptr<BaseTransportDescriptor> transportDescriptorOf(const SableCoreBase& core) noexcept;

} // namespace TarnRegFile::Sable
