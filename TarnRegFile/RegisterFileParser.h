#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Reads one CSV register list into a model. Internal to RegFileHelper::parseCsv(), which tells
/// the errors. Used once.
class RegisterFileParser {
public:
   RegisterFileParser(const String& csvPath, std::uint8_t addrBlockSize);

   Ptr<HardwareRegisterFile> parse();

private:
   void _parseLine(std::string_view line);
   void _parseRecord(std::string_view recordLine);
   void _parseField(unsigned position, std::string_view field);
   void _store(std::uint32_t arraySize);

   const String _csvPath;
   const std::uint8_t _addrBlockSize;
   Ptr<HardwareRegisterFile> _model;

   // Kept from record to record: a field that a line does not supply has the value of the record
   // before it.
   HardwareRegister _record;

   // Kept from line to line for their capacity.
   std::vector<String> _expanded;
   String _recordLine;
   std::uint64_t _registers = 0;
   std::uint64_t _bytes = 0;
};

} // namespace TarnRegFile
