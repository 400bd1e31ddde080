#pragma once

#include <cstdint>
#include <optional>

#include "platform/entity/AttributeId.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/PciAddress.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Says which device behind the SMBus proxy daemon. The transport reads it once, when it is made.
class TARN_API NimboSmbusTransportDescriptor : public BaseTransportDescriptor {
public:
   static constexpr Platform::AttributeId busIdAttr{"busId"};
   static constexpr Platform::AttributeId devAddrAttr{"devAddr"};
   static constexpr Platform::AttributeId accelIdAttr{"accelId"};
   static constexpr Platform::AttributeId pciAddrAttr{"pciAddr"};

   NimboSmbusTransportDescriptor(TransportFlavour flavour, std::uint8_t busId, std::uint8_t devAddr,
                                 std::uint8_t accelId,
                                 const std::optional<PciAddress>& pciAddr = std::nullopt);
   ~NimboSmbusTransportDescriptor() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The bus's number on its controller, 7 bits. Here as in the device address, a larger value
   /// is taken, and spoils the field behind it in what the daemon is sent.
   std::uint8_t busId() const noexcept { return _busId; }
   void busIdIs(std::uint8_t busId);

   /// The device's address on the bus, 7 bits.
   std::uint8_t devAddr() const noexcept { return _devAddr; }
   void devAddrIs(std::uint8_t devAddr);

   /// The controller's number.
   std::uint8_t accelId() const noexcept { return _accelId; }
   void accelIdIs(std::uint8_t accelId);

   /// The controller's PCI function, if the daemon is to be told.
   const std::optional<PciAddress>& pciAddr() const noexcept { return _pciAddr; }
   void pciAddrIs(const std::optional<PciAddress>& pciAddr);

private:
   std::uint8_t _busId;
   std::uint8_t _devAddr;
   std::uint8_t _accelId;
   std::optional<PciAddress> _pciAddr;
};

/// A new descriptor that selects the SMBus daemon transport. `flavour` is nimboSmbusFlavour1 or
/// nimboSmbusFlavour2; throws Platform::RangeError for another.
TARN_API Ptr<NimboSmbusTransportDescriptor>
nimboSmbusTransportDescriptorFactory(std::uint8_t busId, std::uint8_t devAddr, std::uint8_t accelId,
                                     TransportFlavour flavour,
                                     const std::optional<PciAddress>& pciAddr = std::nullopt);

} // namespace TarnRegFile
