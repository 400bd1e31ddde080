#include "TarnRegFile/SpiTransportMethodImpl.h"

#include <cerrno>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/hardware/SpiEngineRequest.h"

namespace TarnRegFile {

namespace {

constexpr const char* longAddress = "SPI address {} longer than 8 bits";
constexpr const char* longValue = "SPI value {} longer than 16 bits";
constexpr const char* noRead = "SPI read not implemented";

constexpr std::uint8_t spiAddrBlockSize = 1;
constexpr std::uint32_t maxAddress = 0xFF;
constexpr std::uint32_t maxValue = 0xFFFF;

Hardware::SpiCmdData entry(std::uint32_t byte) {
   return {Hardware::SpiCmdData::writeByte, static_cast<std::uint8_t>(byte)};
}

} // namespace

SpiTransportMethodImpl::SpiTransportMethodImpl(const Ptr<const Hardware::HwAccess>& hwAccess,
                                               const char* chipName,
                                               const Ptr<HardwareRegisterFile>& regFile)
   : BaseTransportMethodImpl(chipName, spiAddrBlockSize, regFile),
     _engine(Platform::make<Hardware::SpiEngine>(hwAccess)),
     _config(Platform::make<Hardware::SpiEngineConfig>(hwAccess->name())),
     _status(Platform::make<Hardware::SpiEngineStatus>(hwAccess->name())),
     _sm(Platform::make<Hardware::SpiEngineSm>(_engine, _config, _status)) {}

SpiTransportMethodImpl::~SpiTransportMethodImpl() = default;

std::uint32_t SpiTransportMethodImpl::regRead(const char*) {
   Platform::throwError(EIO, noRead);
}

void SpiTransportMethodImpl::regWrite(const char* regName, std::uint32_t value) {
   _write(helper->registerByName(regName).address, value);
}

std::uint32_t SpiTransportMethodImpl::regReadResolved(const String&, const HardwareRegister&) {
   Platform::throwError(EIO, noRead);
}

void SpiTransportMethodImpl::regWriteResolved(const String&, const HardwareRegister& reg,
                                              std::uint32_t value) {
   _write(reg.address, value);
}

const std::type_info& SpiTransportMethodImpl::handleAccessType() const noexcept {
   return typeid(SpiTransportMethodImpl);
}

void SpiTransportMethodImpl::_write(std::uint32_t address, std::uint32_t value) {
   // A rejected write takes an id too, so that ids count the writes that were asked for.
   const auto request = Platform::make<Hardware::SpiEngineRequest>(_nextRequestId++);
   if (address > maxAddress) {
      Platform::throwError(EINVAL, fmt::format(longAddress, address));
   }
   if (value > maxValue) {
      Platform::throwError(EINVAL, fmt::format(longValue, value));
   }
   request->cmdDataIs(0, entry(address));
   request->cmdDataIs(1, entry(value >> 8));
   request->cmdDataIs(2, entry(value & 0xFF));
   _config->requestEnq(request);
}

} // namespace TarnRegFile
