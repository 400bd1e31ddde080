#include "TarnRegFile/ImplFactoryMap.h"

#include <cerrno>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeData.h"
#include "platform/hardware/HwAccessImpl.h"
#include "TarnRegFile/I2cSornTransportDescriptor.h"
#include "TarnRegFile/I2cTransportDescriptor.h"
#include "TarnRegFile/I2cTransportMethodImpl.h"
#include "TarnRegFile/I2cTransportSornImpl.h"
#include "TarnRegFile/MockTransportMethodImpl.h"
#include "TarnRegFile/NimboSmbusTransportDescriptor.h"
#include "TarnRegFile/NimboSmbusTransportMethodImpl.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/PciTransportMethodImpl.h"
#include "TarnRegFile/SpiTransportDescriptor.h"
#include "TarnRegFile/SpiTransportMethodImpl.h"

namespace TarnRegFile {

namespace {

constexpr const char* wrongDescriptor = "TransportDescriptor must be a {}, not {}";
constexpr const char* notPciAccess = "PciHwAccessImpl cast error";
constexpr const char* noSornDesc = "I2cSornTransportDescriptor must have a sornDesc";

/// The descriptor as the kind that a transport needs. Throws std::system_error EINVAL (generic
/// category) when it is none, or null.
template <typename Kind>
Ptr<Kind> descriptorOfKind(const Ptr<BaseTransportDescriptor>& descriptor) {
   Ptr<Kind> kind = Platform::ptrCast<Kind>(descriptor);
   if (!kind) {
      Platform::throwError(EINVAL,
                           fmt::format(wrongDescriptor, Kind::staticType().name(),
                                       descriptor ? descriptor->typeData().name() : "null"));
   }
   return kind;
}

BaseTransportMethodImpl* pciImplFactory(const Ptr<BaseTransportDescriptor>& descriptor,
                                        const String& csvPath,
                                        const Ptr<HardwareRegisterFile>& regFile) {
   const Ptr<Hardware::HwAccess> hwAccess =
      descriptorOfKind<PciTransportDescriptor>(descriptor)->hwAccess();
   const auto hwAccessImpl = Platform::ptrCast<Hardware::HwAccessImpl>(hwAccess);
   if (hwAccess && !hwAccessImpl) {
      Platform::throwErrno(notPciAccess);
   }
   return new PciTransportMethodImpl(hwAccessImpl, csvPath.c_str(), regFile);
}

template <I2cFlavour flavour>
BaseTransportMethodImpl* i2cImplFactory(const Ptr<BaseTransportDescriptor>& descriptor,
                                        const String& csvPath,
                                        const Ptr<HardwareRegisterFile>& regFile) {
   const auto device = descriptorOfKind<I2cTransportDescriptor>(descriptor);
   return new I2cTransportMethodImpl(device->devicePath().c_str(), device->deviceAddress(),
                                     csvPath.c_str(), flavour, regFile);
}

BaseTransportMethodImpl* sornImplFactory(const Ptr<BaseTransportDescriptor>& descriptor,
                                         const String& csvPath,
                                         const Ptr<HardwareRegisterFile>& regFile) {
   const auto device = descriptorOfKind<I2cSornTransportDescriptor>(descriptor);
   if (!device->sornDesc()) {
      Platform::throwError(EINVAL, noSornDesc);
   }
   return new I2cTransportSornImpl(device->sornDesc()->sorn(), device->deviceId(), csvPath.c_str(),
                                   regFile);
}

BaseTransportMethodImpl* mockImplFactory(const Ptr<BaseTransportDescriptor>&, const String& csvPath,
                                         const Ptr<HardwareRegisterFile>& regFile) {
   return new MockTransportMethodImpl(csvPath.c_str(), regFile);
}

BaseTransportMethodImpl* nimboImplFactory(const Ptr<BaseTransportDescriptor>& descriptor,
                                          const String& csvPath,
                                          const Ptr<HardwareRegisterFile>& regFile) {
   const auto device = descriptorOfKind<NimboSmbusTransportDescriptor>(descriptor);
   return new NimboSmbusTransportMethodImpl(*device, csvPath.c_str(), regFile);
}

BaseTransportMethodImpl* spiImplFactory(const Ptr<BaseTransportDescriptor>& descriptor,
                                        const String& csvPath,
                                        const Ptr<HardwareRegisterFile>& regFile) {
   const auto device = descriptorOfKind<SpiTransportDescriptor>(descriptor);
   return new SpiTransportMethodImpl(device->hwAccess(), csvPath.c_str(), regFile);
}

} // namespace

const ImplFactoryMap implFactoryMap = {
   {{TransportType::pciBus, TransportProtocol::pciMmio, TransportFlavour::pciDefault},
    pciImplFactory},
   {{TransportType::i2cBus, TransportProtocol::sornAsync, TransportFlavour::sornDefault},
    sornImplFactory},
   {{TransportType::i2cBus, TransportProtocol::i2cDev, TransportFlavour::i2cDevFlavour1},
    i2cImplFactory<I2cFlavour::dataBlock>},
   {{TransportType::i2cBus, TransportProtocol::i2cDev, TransportFlavour::i2cDevFlavour2},
    i2cImplFactory<I2cFlavour::dataWord>},
   {{TransportType::i2cBus, TransportProtocol::nimboSmbus, TransportFlavour::nimboSmbusFlavour1},
    nimboImplFactory},
   {{TransportType::i2cBus, TransportProtocol::nimboSmbus, TransportFlavour::nimboSmbusFlavour2},
    nimboImplFactory},
   {{TransportType::mockBus, TransportProtocol::mockAccess, TransportFlavour::mockDefault},
    mockImplFactory},
   {{TransportType::spiBus, TransportProtocol::spiAccess, TransportFlavour::spiDefault},
    spiImplFactory},
};

} // namespace TarnRegFile
