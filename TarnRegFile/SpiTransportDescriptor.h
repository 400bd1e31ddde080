#pragma once

#include "platform/entity/AttributeId.h"
#include "platform/hardware/HwAccess.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Selects the SPI transport, and names the device. An entity, held through Ptr.
class TARN_API SpiTransportDescriptor : public BaseTransportDescriptor {
public:
   static constexpr Platform::AttributeId hwAccessAttr{"hwAccess"};

   SpiTransportDescriptor();
   ~SpiTransportDescriptor() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The device's handle, a Hardware::SpiHwAccess; null at first.
   const Ptr<const Hardware::HwAccess>& hwAccess() const noexcept { return _hwAccess; }
   void hwAccessIs(const Ptr<const Hardware::HwAccess>& hwAccess);

private:
   Ptr<const Hardware::HwAccess> _hwAccess;
};

/// A new descriptor of the device behind `hwAccess`.
TARN_API Ptr<SpiTransportDescriptor>
spiTransportDescriptorFactory(const Ptr<const Hardware::HwAccess>& hwAccess);

} // namespace TarnRegFile
