#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "board/Platforms.h"
#include "board/TransportUrl.h"
#include "platform/hardware/Sorn.h"
#include "platform/hardware/SpiHwAccess.h"
#include "TarnRegFile/TransportMethod.h"
#include "tools/tarnreg/AccessError.h"
#include "tools/tarnreg/FailureSink.h"
#include "tools/tarnreg/PendingAccess.h"

namespace TarnReg {

/// The opened device: accesses that either work or throw AccessError. A failed read cannot be
/// mistaken for a register that holds 0xFFFFFFFF.
class Device {
public:
   /// Opens the device whose register list is at `file`. Throws Failure, and what else
   /// TransportMethod::init() throws. A list that would stop the process is refused too.
   ///
   /// `platforms` are those of the program, for devices that are to share a bus; without them the
   /// device has its own.
   Device(const std::string& file, const Board::TransportUrl& url,
          std::shared_ptr<FailureSink> failures,
          std::shared_ptr<Board::Platforms> platforms = nullptr);

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

   /// Whether a read gives four bytes of the device whatever the register's width.
   bool readsWholeWords() const noexcept;

   /// The part of a read value that a write of the register goes to.
   std::uint32_t writtenPart(const TarnRegFile::HardwareRegister& record,
                             std::uint32_t value) const noexcept;

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

   // Of a device whose results arrive later, several accesses can be under way.

   bool isAsync() const noexcept { return static_cast<bool>(_pending); }

   /// Begins a read. The device has to be asynchronous.
   std::shared_ptr<PendingAccess> readBegin(const std::string& name);

   /// Calls `run`, which begins one access of the register `name` through method(), and waits for
   /// its end. Throws as access(), and AccessError. The device has to be asynchronous.
   std::uint32_t submit(bool isRead, const std::string& name, const std::function<void()>& run);

   /// Waits for the end, and returns the value that was read. Throws AccessError.
   std::uint32_t finish(const std::shared_ptr<PendingAccess>& access);

   /// How long an access may take, in milliseconds; 0, which it always is where the transport
   /// itself waits, for no limit. Setting it does nothing there.
   std::uint32_t accessTimeout() const noexcept { return _sorn ? _sorn->timeout() : 0; }
   void accessTimeoutIs(std::uint32_t milliseconds);

private:
   void _open(const std::string& file, const Board::TransportUrl& url);
   std::shared_ptr<PendingAccess> _begin(bool isRead, const std::string& name,
                                         const std::function<void()>& run);
   void _send(const char* what, const std::string& name);
   void _accessRegister(const char* what, const std::string& name,
                        const std::function<void()>& run);
   AccessError _failure(const char* what, const std::string& name, const std::string& fallback,
                        ExitCode code);

   std::shared_ptr<Board::Platforms> _platforms; // outlives the device's transport
   Platform::Ptr<TarnRegFile::TransportMethod> _method;
   std::shared_ptr<FailureSink> _failures;
   Board::TransportUrl::Where _where;
   Platform::Ptr<const Hardware::SpiHwAccess> _spi; // if it is behind SPI
   Platform::Ptr<Hardware::Sorn> _sorn;             // if it is behind the access manager
   Platform::Ptr<PendingAccesses> _pending;         // likewise
   std::vector<const TarnRegFile::HardwareRegister*> _registers;
};

} // namespace TarnReg
