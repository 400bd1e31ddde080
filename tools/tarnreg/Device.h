#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "board/TransportUrl.h"
#include "platform/hardware/SpiHwAccess.h"
#include "TarnRegFile/TransportMethod.h"
#include "tools/tarnreg/AccessError.h"
#include "tools/tarnreg/FailureSink.h"

namespace TarnReg {

/// The opened device: accesses that either work or throw AccessError. A failed read cannot be
/// mistaken for a register that holds 0xFFFFFFFF.
class Device {
public:
   /// Opens the device whose register list is at `file`. Throws Failure, and what else
   /// TransportMethod::init() throws. A list that would stop the process is refused too.
   Device(const std::string& file, const Board::TransportUrl& url,
          std::shared_ptr<FailureSink> failures);

   /// Takes over a device that has its transport already, and makes it raise its failures.
   Device(Platform::Ptr<TarnRegFile::TransportMethod> method,
          std::shared_ptr<FailureSink> failures);
   ~Device();

   Device(const Device&) = delete;
   Device& operator=(const Device&) = delete;

   TarnRegFile::TransportMethod& method() noexcept { return *_method; }

   /// Every register by ascending address, and by name where they share one. Made on first use.
   const std::vector<const TarnRegFile::HardwareRegister*>& registers();

   /// The register's record, or null.
   const TarnRegFile::HardwareRegister* find(std::string_view name) const;

   /// The bits of a value that carry meaning: the low ones, as many as the register is wide; but
   /// the first bytes of the four where an I2C device is accessed in blocks, which that transport
   /// leaves in the upper part.
   std::uint32_t valueMask(const TarnRegFile::HardwareRegister& record) const noexcept;

   /// Throws Failure (deviceError) for a device that can only be written.
   void requireReadable() const;

   /// Whether the transport can access several words in one go; asking one that cannot would stop
   /// the process.
   bool hasBlockAccess() const noexcept;

   /// Calls `run`, which uses method(), and throws AccessError "cannot <what> <name>: <reason>"
   /// when the library reported a failed access; its code is timeout when errno was ETIMEDOUT. Any
   /// other exception passes on. Returns when the device has what was written, also where the
   /// transport itself would only queue it.
   void access(const char* what, const std::string& name, const std::function<void()>& run);

   // Whatever goes wrong with one register, an exception that the library passes on included, is an
   // AccessError, so that the others still have their turn.

   std::uint32_t read(const std::string& name);
   void write(const std::string& name, std::uint32_t value);

private:
   void _open(const std::string& file, const Board::TransportUrl& url);
   void _send(const char* what, const std::string& name);
   void _accessRegister(const char* what, const std::string& name,
                        const std::function<void()>& run);
   AccessError _failure(const char* what, const std::string& name, const std::string& fallback,
                        ExitCode code);

   Platform::Ptr<TarnRegFile::TransportMethod> _method;
   std::shared_ptr<FailureSink> _failures;
   Board::TransportUrl::Where _where;
   Platform::Ptr<const Hardware::SpiHwAccess> _spi; // if it is behind SPI
   std::vector<const TarnRegFile::HardwareRegister*> _registers;
};

} // namespace TarnReg
