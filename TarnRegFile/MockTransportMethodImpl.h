#pragma once

#include <cstdint>
#include <memory>

#include "TarnRegFile/Export.h"
#include "TarnRegFile/HandleAccess.h"
#include "TarnRegFile/TransportMethodImpl.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Stands in for hardware: keeps 32-bit values by register address, in memory and, when the
/// environment names a values file in REG_VALUES_FILE, in that file. Width, type and the writable
/// flag are not looked at; a register that was never touched reads as 0.
///
/// The file is read when the transport is made ("Address,Value" and a line of two decimal numbers
/// for each address) and rewritten as a whole by every access that persists. Without a lock:
/// processes that share a file do not see each other's changes, and the last writer wins. A file
/// that cannot be read or written is silently done without.
class TARN_API MockTransportMethodImpl : public BaseTransportMethodImpl, public HandleAccess {
public:
   /// Throws what the base throws, and std::invalid_argument or std::out_of_range "stoul" for a
   /// bad number in the values file.
   MockTransportMethodImpl(const char* csvPath, const Ptr<HardwareRegisterFile>& regFileModel);
   ~MockTransportMethodImpl() override;

   // All of these throw std::system_error ENOENT for an unknown name, before anything changes.

   /// The value at the register's address. A first read stores 0 and persists.
   std::uint32_t regRead(const char* name) override;

   /// Stores and persists the value, unless it is the one already stored.
   void regWrite(const char* name, std::uint32_t value) override;

   /// Reads `count` words, 4 address units apart. Persists once if one of them was read for the
   /// first time.
   void regReadBlock(const char* name, std::uint32_t* out, std::uint32_t count) override;

   /// Stores `count` words, 4 address units apart, and persists once, whether or not any changed.
   void regWriteBlock(const char* name, const std::uint32_t* values, std::uint32_t count) override;

   std::uint32_t regReadResolved(const String& regName, const HardwareRegister& reg) override;
   void regWriteResolved(const String& regName, const HardwareRegister& reg,
                         std::uint32_t value) override;
   const std::type_info& handleAccessType() const noexcept override;

private:
   std::uint32_t _read(std::uint32_t address);
   void _write(std::uint32_t address, std::uint32_t value);
   void _loadRegValues();
   void _loadLine(const String& line);
   void _doPersistRegValues() const;

   String _regValuesFile;

   struct RegValues;
   std::unique_ptr<RegValues> _regValues; // by address
};

} // namespace TarnRegFile
