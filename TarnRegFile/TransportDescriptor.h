#pragma once

#include "platform/entity/AttributeId.h"
#include "platform/hardware/TransportDescriptorBase.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/TransportTypes.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Says which transport a device is reached through. The three enumerations select the
/// implementation; a derived kind adds what that one needs to find the device. The mock needs
/// nothing more and takes this one as it stands. An entity, held through Ptr.
class TARN_API BaseTransportDescriptor : public Hardware::TransportDescriptorBase {
public:
   static constexpr Platform::AttributeId transportTypeAttr{"transportType"};
   static constexpr Platform::AttributeId transportProtocolAttr{"transportProtocol"};
   static constexpr Platform::AttributeId transportFlavourAttr{"transportFlavour"};

   BaseTransportDescriptor(TransportType type, TransportProtocol protocol,
                           TransportFlavour flavour);
   ~BaseTransportDescriptor() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   TransportType transportType() const noexcept { return _transportType; }
   void transportTypeIs(TransportType type);

   TransportProtocol transportProtocol() const noexcept { return _transportProtocol; }
   void transportProtocolIs(TransportProtocol protocol);

   TransportFlavour transportFlavour() const noexcept { return _transportFlavour; }
   void transportFlavourIs(TransportFlavour flavour);

private:
   TransportType _transportType;
   TransportProtocol _transportProtocol;
   TransportFlavour _transportFlavour;
};

/// A new descriptor of the base kind.
TARN_API Ptr<BaseTransportDescriptor> baseTransportDescriptorFactory(TransportType type,
                                                                     TransportProtocol protocol,
                                                                     TransportFlavour flavour);

/// A new descriptor that selects the mock.
TARN_API Ptr<BaseTransportDescriptor> mockTransportDescriptorFactory();

} // namespace TarnRegFile
