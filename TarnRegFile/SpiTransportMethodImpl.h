#pragma once

#include <cstdint>

#include "platform/hardware/HwAccess.h"
#include "platform/hardware/SpiEngine.h"
#include "platform/hardware/SpiEngineConfig.h"
#include "platform/hardware/SpiEngineSm.h"
#include "platform/hardware/SpiEngineStatus.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/HandleAccess.h"
#include "TarnRegFile/TransportMethodImpl.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Writes registers of up to 16 bits, at addresses of up to 8 bits, over SPI: one message of three
/// bytes each, the address, the value's high byte and its low byte. Nothing can be read.
///
/// A write is queued and returns; the SPI engine sends it later (Hardware::SpiEngineSm says when).
/// What becomes of it is in the engine's status, which this transport does not look at: a device
/// that does not answer fails no write here. Writes still queued when the transport is destroyed
/// are not sent, and count as failed; a program that wants them sent calls drain() of its
/// Hardware::SpiHwAccess first.
class TARN_API SpiTransportMethodImpl : public BaseTransportMethodImpl, public HandleAccess {
public:
   /// Throws what the base throws, and std::system_error EINVAL (generic category) when `hwAccess`
   /// is null or no Hardware::SpiHwAccess. `chipName` is the path of the register list.
   SpiTransportMethodImpl(const Ptr<const Hardware::HwAccess>& hwAccess, const char* chipName,
                          const Ptr<HardwareRegisterFile>& regFile);

   /// Lets the four parts of the engine go, the state machine first.
   ~SpiTransportMethodImpl() override;

   /// Fails with std::system_error EIO (generic category) "SPI read not implemented", whatever the
   /// name.
   std::uint32_t regRead(const char* regName) override;

   /// Queues the write. Each call that finds its register takes one request id, also one that then
   /// fails. Throws std::system_error (generic category): ENOENT for an unknown name; EINVAL "SPI
   /// address {} longer than 8 bits" and "SPI value {} longer than 16 bits"; ENOBUFS when the
   /// queue is full. Nothing is queued then.
   void regWrite(const char* regName, std::uint32_t value) override;

   std::uint32_t regReadResolved(const String& regName, const HardwareRegister& reg) override;
   void regWriteResolved(const String& regName, const HardwareRegister& reg,
                         std::uint32_t value) override;
   const std::type_info& handleAccessType() const noexcept override;

   // The parts of the engine, for those who wait for completion or watch for failures; never null.
   const Ptr<Hardware::SpiEngine>& spiEngine() const noexcept { return _engine; }
   const Ptr<Hardware::SpiEngineConfig>& spiEngineConfig() const noexcept { return _config; }
   const Ptr<Hardware::SpiEngineStatus>& spiEngineStatus() const noexcept { return _status; }
   const Ptr<Hardware::SpiEngineSm>& spiEngineSm() const noexcept { return _sm; }

private:
   void _write(std::uint32_t address, std::uint32_t value);

   // Made in this order, released in the reverse one.
   const Ptr<Hardware::SpiEngine> _engine;
   const Ptr<Hardware::SpiEngineConfig> _config;
   const Ptr<Hardware::SpiEngineStatus> _status;
   const Ptr<Hardware::SpiEngineSm> _sm;
   std::uint32_t _nextRequestId = 0;
};

} // namespace TarnRegFile
