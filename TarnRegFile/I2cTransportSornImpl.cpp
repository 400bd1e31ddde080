#include "TarnRegFile/I2cTransportSornImpl.h"

namespace TarnRegFile {

namespace {

constexpr std::uint8_t sornAddrBlockSize = 1;

} // namespace

I2cTransportSornImpl::I2cTransportSornImpl(const Ptr<Hardware::Sorn>& sorn, std::uint32_t devId,
                                           const char* csvPath,
                                           const Ptr<HardwareRegisterFile>& regFile)
   : BaseTransportMethodImpl(csvPath, sornAddrBlockSize, regFile), _sorn(sorn),
     _sm(Platform::make<I2cTransportSornImplSm>(_sorn, devId, helper)) {}

I2cTransportSornImpl::~I2cTransportSornImpl() {
   // Also when somebody else holds it: nobody hears of this transport any more.
   _sm->teardown();
   _sm.reset();
   _sorn.reset();
}

std::uint32_t I2cTransportSornImpl::regRead(const char* regName) {
   _sm->sornRead(regName);
   return 0;
}

void I2cTransportSornImpl::regWrite(const char* regName, std::uint32_t value) {
   _sm->sornWrite(regName, value);
}

std::uint32_t I2cTransportSornImpl::regReadResolved(const String& regName,
                                                    const HardwareRegister& reg) {
   _sm->readResolved(regName, reg);
   return 0;
}

void I2cTransportSornImpl::regWriteResolved(const String& regName, const HardwareRegister& reg,
                                            std::uint32_t value) {
   _sm->writeResolved(regName, reg, value);
}

const std::type_info& I2cTransportSornImpl::handleAccessType() const noexcept {
   return typeid(I2cTransportSornImpl);
}

void I2cTransportSornImpl::asyncHelperIs(Ptr<AsyncHelperBase> newHelper) {
   _sm->asyncHelperIs(newHelper);
}

Ptr<AsyncHelperBase> I2cTransportSornImpl::getAsyncHelper() const {
   return _sm->asyncHelper();
}

} // namespace TarnRegFile
