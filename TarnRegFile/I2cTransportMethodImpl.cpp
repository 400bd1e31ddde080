#include "TarnRegFile/I2cTransportMethodImpl.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>

#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/Fatal.h"
#include "platform/trace/Trace.h"

namespace TarnRegFile {

namespace {

constexpr const char* sourceName = "TarnRegFile/I2cTransportMethodImpl";
TARN_TRACE_SOURCE(traceSource, sourceName);

constexpr const char* openText = "Error opening I2C device '{}'";
constexpr const char* addressText = "Error setting peripheral address to {:#x}";

} // namespace

I2cTransportMethodImpl::I2cTransportMethodImpl(const char* devicePath, int peripheralAddress,
                                               const char* chipName, I2cFlavour flavour,
                                               const Ptr<HardwareRegisterFile>& regFile)
   : I2cTransportMethodImpl(i2cflavspec::specOf(flavour), devicePath, peripheralAddress, chipName,
                            regFile) {}

I2cTransportMethodImpl::I2cTransportMethodImpl(const i2cflavspec::Spec& spec,
                                               const char* devicePath, int peripheralAddress,
                                               const char* chipName,
                                               const Ptr<HardwareRegisterFile>& regFile)
   : BaseTransportMethodImpl(chipName, spec.addrBlockSize, regFile),
     i2cFd(std::make_unique<Utils::UnixFdRes>(-1)), readFunction(spec.read),
     writeFunction(spec.write) {
   // A child process has no business with the bus.
   Utils::UnixFdRes opened(::open(devicePath, O_RDWR | O_CLOEXEC));
   if (opened.fd() < 0) {
      Platform::throwErrno(fmt::format(openText, devicePath));
   }
   const long result = Utils::syscallAutoRetry(
      [&] { return ::ioctl(opened.fd(), I2C_SLAVE, static_cast<long>(peripheralAddress)); }, true,
      true);
   if (result < 0) {
      Platform::throwErrno(fmt::format(addressText, peripheralAddress));
   }
   *i2cFd = std::move(opened);
   TARN_TRACE(traceSource, 1, "I2cTransportMethodImpl", "Opened i2c with fd {}", i2cFd->fd());
}

I2cTransportMethodImpl::~I2cTransportMethodImpl() = default;

std::uint32_t I2cTransportMethodImpl::regRead(const char* regName) {
   const HardwareRegister& reg = helper->registerByName(regName);
   return readFunction(_openFd("regRead"), reg);
}

void I2cTransportMethodImpl::regWrite(const char* regName, std::uint32_t value) {
   const HardwareRegister& reg = helper->registerByName(regName);
   writeFunction(_openFd("regWrite"), reg, value);
}

std::uint32_t I2cTransportMethodImpl::regReadResolved(const String&, const HardwareRegister& reg) {
   return readFunction(_openFd("regRead"), reg);
}

void I2cTransportMethodImpl::regWriteResolved(const String&, const HardwareRegister& reg,
                                              std::uint32_t value) {
   writeFunction(_openFd("regWrite"), reg, value);
}

const std::type_info& I2cTransportMethodImpl::handleAccessType() const noexcept {
   return typeid(I2cTransportMethodImpl);
}

int I2cTransportMethodImpl::_openFd(const char* function) const {
   const int fd = i2cFd->fd();
   if (fd < 0) {
      Platform::fatalAssertion(sourceName, function, "i2cFd >= 0");
   }
   return fd;
}

} // namespace TarnRegFile
