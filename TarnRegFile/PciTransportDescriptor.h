#pragma once

#include "platform/entity/AttributeId.h"
#include "platform/hardware/HwAccess.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Selects the PCI transport, and carries the handle on the device's register space: a
/// Hardware::PciHwAccessImpl. An entity, held through Ptr.
class TARN_API PciTransportDescriptor : public BaseTransportDescriptor {
public:
   static constexpr Platform::AttributeId hwAccessAttr{"hwAccess"};

   explicit PciTransportDescriptor(const Ptr<Hardware::HwAccess>& hwAccess);
   ~PciTransportDescriptor() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const Ptr<Hardware::HwAccess>& hwAccess() const noexcept { return _hwAccess; }
   void hwAccessIs(const Ptr<Hardware::HwAccess>& hwAccess);

private:
   Ptr<Hardware::HwAccess> _hwAccess;
};

/// A new descriptor that selects the PCI transport.
TARN_API Ptr<PciTransportDescriptor>
pciTransportDescriptorFactory(const Ptr<Hardware::HwAccess>& hwAccess);

} // namespace TarnRegFile
