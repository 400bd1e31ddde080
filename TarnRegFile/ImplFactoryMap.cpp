#include "TarnRegFile/ImplFactoryMap.h"

#include "TarnRegFile/MockTransportMethodImpl.h"

namespace TarnRegFile {

namespace {

BaseTransportMethodImpl* mockImplFactory(const Ptr<BaseTransportDescriptor>&, const String& csvPath,
                                         const Ptr<HardwareRegisterFile>& regFile) {
   return new MockTransportMethodImpl(csvPath.c_str(), regFile);
}

} // namespace

const ImplFactoryMap implFactoryMap = {
   {{TransportType::mockBus, TransportProtocol::mockAccess, TransportFlavour::mockDefault},
    mockImplFactory},
};

} // namespace TarnRegFile
