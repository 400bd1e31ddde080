#include "TarnRegFile/NimboSmbusTransportDescriptor.h"

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

NimboSmbusTransportDescriptor::NimboSmbusTransportDescriptor(
   TransportFlavour flavour, std::uint8_t busId, std::uint8_t devAddr, std::uint8_t accelId,
   const std::optional<PciAddress>& pciAddr)
   : BaseTransportDescriptor(TransportType::i2cBus, TransportProtocol::nimboSmbus, flavour),
     _busId(busId), _devAddr(devAddr), _accelId(accelId), _pciAddr(pciAddr) {}

NimboSmbusTransportDescriptor::~NimboSmbusTransportDescriptor() {
   beingDestroyedIs();
}

const Platform::TypeData& NimboSmbusTransportDescriptor::staticType() {
   using Self = NimboSmbusTransportDescriptor;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::NimboSmbusTransportDescriptor",
                                  BaseTransportDescriptor::staticType())
         .attribute<&Self::busId, &Self::busIdIs>("busId")
         .attribute<&Self::devAddr, &Self::devAddrIs>("devAddr")
         .attribute<&Self::accelId, &Self::accelIdIs>("accelId")
         .attribute<&Self::pciAddr, &Self::pciAddrIs>("pciAddr")
         .build();
   return type;
}

void NimboSmbusTransportDescriptor::busIdIs(std::uint8_t busId) {
   store(_busId, busId, busIdAttr);
}

void NimboSmbusTransportDescriptor::devAddrIs(std::uint8_t devAddr) {
   store(_devAddr, devAddr, devAddrAttr);
}

void NimboSmbusTransportDescriptor::accelIdIs(std::uint8_t accelId) {
   store(_accelId, accelId, accelIdAttr);
}

void NimboSmbusTransportDescriptor::pciAddrIs(const std::optional<PciAddress>& pciAddr) {
   store(_pciAddr, pciAddr, pciAddrAttr);
}

Ptr<NimboSmbusTransportDescriptor>
nimboSmbusTransportDescriptorFactory(std::uint8_t busId, std::uint8_t devAddr, std::uint8_t accelId,
                                     TransportFlavour flavour,
                                     const std::optional<PciAddress>& pciAddr) {
   if (flavour != TransportFlavour::nimboSmbusFlavour1 &&
       flavour != TransportFlavour::nimboSmbusFlavour2) {
      throw Platform::RangeError(
         fmt::format("transport flavour {} is none of the SMBus daemon's", unsigned(flavour)));
   }
   return Platform::make<NimboSmbusTransportDescriptor>(flavour, busId, devAddr, accelId, pciAddr);
}

} // namespace TarnRegFile
