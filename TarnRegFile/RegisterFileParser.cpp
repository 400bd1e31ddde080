#include "TarnRegFile/RegisterFileParser.h"

#include <cerrno>
#include <fstream>
#include <string>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/ArrayExpansion.h"
#include "TarnRegFile/RegisterFileStream.h"
#include "TarnRegFile/RegisterLine.h"
#include "TarnRegFile/Utils.h"

namespace TarnRegFile {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/RegisterFileHelper");

constexpr const char* headerError = "Wrong CSV header";
constexpr const char* addressError = "Invalid address token";
constexpr const char* widthError = "Invalid width token";
constexpr const char* widthRangeError = "Unsupported register width";
constexpr const char* tooManyError = "Register file defines more than {} registers";
constexpr const char* tooLargeError = "Register file expands to more than {} bytes";

} // namespace

RegisterFileParser::RegisterFileParser(const String& csvPath, std::uint8_t addrBlockSize)
   : _csvPath(csvPath), _addrBlockSize(addrBlockSize) {}

Ptr<HardwareRegisterFile> RegisterFileParser::parse() {
   std::ifstream in = openRegisterFile(_csvPath);
   _model = Hardware::hardwareRegisterFileFactory(_csvPath);
   String buffer;
   if (!readRegisterFileHeader(in, buffer)) {
      Platform::throwError(EINVAL, headerError);
   }
   std::string_view line;
   while (Utils::getline_lea(in, buffer, line)) {
      if (!line.empty()) {
         _parseLine(line);
      }
   }
   checkReadToEnd(in, _csvPath);
   return std::move(_model);
}

void RegisterFileParser::_parseLine(std::string_view line) {
   const int number = registerNumber(line);
   _expanded.clear();
   const std::uint32_t count = _expandArray(expandablePart(line), _expanded);
   _registers += count;
   _bytes += expandedBytes(count, line);
   if (_registers > maxFileRegisters) {
      Platform::throwError(EINVAL, fmt::format(tooManyError, maxFileRegisters));
   }
   if (_bytes > maxFileExpandedBytes) {
      Platform::throwError(EINVAL, fmt::format(tooLargeError, maxFileExpandedBytes));
   }
   for (std::uint32_t k = 0; k < count; ++k) {
      // Wider than int, so that an array may run past the largest int.
      fmt::format_int rendered(static_cast<std::int64_t>(number) + k);
      _recordLine.assign(rendered.data(), rendered.size());
      _recordLine += _expanded[k];
      _parseRecord(_recordLine);
      _store(count);
   }
}

void RegisterFileParser::_parseRecord(std::string_view recordLine) {
   std::size_t position = 0;
   std::string_view field;
   unsigned found = 0;
   while (found < registerFieldCount && Utils::tokenize(recordLine, position, field, ',')) {
      _parseField(found, field);
      ++found;
   }
   if (found < registerFieldCount) {
      TARN_TRACE(traceSource, 8, "parseCsv", "Incomplete CSV fields. Found {} fields only.", found);
   }
}

void RegisterFileParser::_parseField(unsigned position, std::string_view field) {
   switch (position) {
   case 0: {
      std::uint32_t number = 0;
      if (!parseDigits(field, number)) {
         Platform::throwError(EINVAL, addressError);
      }
      _record.address = number * _addrBlockSize;
      break;
   }
   case 1:
      _record.name = field;
      break;
   case 2:
      _record.type = HardwareRegister::regTypeFromString(field);
      if (_record.type == HardwareRegisterType::unknown) {
         TARN_TRACE(traceSource, 8, "parseCsv", "Unknown register type '{}'", field);
      }
      break;
   case 3:
      _record.writable = field != "false";
      break;
   default:
      if (!parseDigits(field, _record.width)) {
         Platform::throwError(EINVAL, widthError);
      }
      if (_record.width > maxRegisterWidth) {
         Platform::throwError(EINVAL, widthRangeError);
      }
      break;
   }
}

void RegisterFileParser::_store(std::uint32_t arraySize) {
   _record.arraySize = arraySize;
   _record.accessWidth = 32;
   _model->nameToRegMapIs(_record.name, _record);
   _model->addrToNameMapIs(_record.address, _record.name);
}

} // namespace TarnRegFile
