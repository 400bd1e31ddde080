#pragma once

#include <cstdint>

#include "TarnRegFile/Export.h"
#include "TarnRegFile/HandleAccess.h"
#include "TarnRegFile/NimboSmbusTransportDescriptor.h"
#include "TarnRegFile/PciAddress.h"
#include "TarnRegFile/TransportMethodImpl.h"

namespace TarnRegFile {

/// Reaches a device's registers through the platform's SMBus proxy daemon. Synchronous: each access
/// is one request to the daemon and its response. No block access.
///
/// The daemon is connected to once, when the transport is made, at the Unix socket "smbus" in
/// /var/run/platform; the environment variables NM_SOCKET_FILE and NM_SOCKET_DIR name others.
///
/// Clients rely on the following, so it stays:
/// - The connection stays open until the process ends; destroying the transport does not close it,
///   and child processes inherit it.
/// - There is no time-out: a daemon that does not answer keeps the caller waiting, and so does one
///   that closes the connection in the middle of an answer, with the processor busy.
/// - There is no reconnection, and after a frame that went out or came in only in part, what
///   follows on the connection makes no sense any more. A program then makes a new transport.
/// - Sending to a daemon that has gone raises SIGPIPE. A program that ignores the signal gets an
///   error in its place.
class TARN_API NimboSmbusTransportMethodImpl : public BaseTransportMethodImpl, public HandleAccess {
public:
   /// Throws, in this order: what the base throws; std::system_error with the errno of connecting;
   /// std::system_error EINVAL (generic category) for a descriptor of another flavour than
   /// nimboSmbusFlavour1 and nimboSmbusFlavour2, with the connection left open.
   NimboSmbusTransportMethodImpl(const NimboSmbusTransportDescriptor& desc, const char* chipName,
                                 const Ptr<HardwareRegisterFile>& regFile);
   ~NimboSmbusTransportMethodImpl() override;

   /// The four bytes that the device gave, whatever the register's width. Throws std::system_error:
   /// ENOENT for an unknown name, before anything is sent; with errno when sending or receiving
   /// fails; EINVAL for a response that does not belong to the request; EIO with the daemon's own
   /// words when it could not do it. All but the second are of the generic category.
   std::uint32_t regRead(const char* regName) override;

   /// As regRead().
   void regWrite(const char* regName, std::uint32_t value) override;

   std::uint32_t regReadResolved(const String& regName, const HardwareRegister& reg) override;
   void regWriteResolved(const String& regName, const HardwareRegister& reg,
                         std::uint32_t value) override;
   const std::type_info& handleAccessType() const noexcept override;

protected:
   int nimboFd = -1;
   int mastertype = 0; // of type Smbus::MasterType
   std::uint8_t busId = 0;
   std::uint8_t devAddr = 0;
   std::uint8_t accelId = 0;
   PciAddress pciAddr;
   std::uint32_t pciBdf = 0;

private:
   std::uint32_t _read(std::uint32_t address);
   void _write(std::uint32_t address, std::uint32_t value);
   std::uint64_t _addressWord(std::uint32_t offset) const noexcept;
};

} // namespace TarnRegFile
