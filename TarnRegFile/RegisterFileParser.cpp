#include "TarnRegFile/RegisterFileParser.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <string>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/ArrayExpansion.h"
#include "TarnRegFile/Utils.h"

namespace TarnRegFile {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/RegisterFileHelper");

constexpr std::string_view header = "number,name,type,writeable,width";
constexpr unsigned fieldCount = 5;
constexpr std::uint32_t maxWidth = 32;

// A small file can ask for any number of registers through array ranges; these bound the model.
constexpr std::uint64_t maxRegisters = 1U << 22;
constexpr std::uint64_t maxExpandedBytes = 1U << 30;

constexpr const char* openError = "Error opening CSV file {}";
constexpr const char* readError = "Error reading CSV file {}";
constexpr const char* headerError = "Wrong CSV header";
constexpr const char* addressError = "Invalid address token";
constexpr const char* widthError = "Invalid width token";
constexpr const char* widthRangeError = "Unsupported register width";
constexpr const char* tooManyError = "Register file defines more than {} registers";
constexpr const char* tooLargeError = "Register file expands to more than {} bytes";

/// Opens the list. A directory opens but cannot be read, and a device node may never end: both
/// are refused like a file that does not open.
std::ifstream openList(const String& path) {
   struct stat status {};
   if (::stat(path.c_str(), &status) == 0) {
      const int refusal = S_ISDIR(status.st_mode)                              ? EISDIR
                          : S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode) ? EINVAL
                                                                               : 0;
      if (refusal != 0) {
         throw std::system_error(refusal, std::system_category(), fmt::format(openError, path));
      }
   }
   std::ifstream in(path);
   if (!in.good()) {
      Platform::throwErrno(fmt::format(openError, path));
   }
   return in;
}

/// Checks the first characters before the line is read as a whole, so that a large file of
/// another kind is refused at once.
void readHeader(std::ifstream& in, String& buffer) {
   String start(header.size(), '\0');
   in.read(start.data(), static_cast<std::streamsize>(start.size()));
   if (!in || start != header) {
      Platform::throwError(EINVAL, headerError);
   }
   std::string_view rest;
   Utils::getline_lea(in, buffer, rest);
}

/// Decimal digits only, not empty, fitting in 32 bits.
bool parseDigits(std::string_view field, std::uint32_t& value) noexcept {
   const char* end = field.data() + field.size();
   const auto [stop, error] = std::from_chars(field.data(), end, value);
   return error == std::errc() && stop == end;
}

/// The part of the line that array ranges are expanded in: from the first comma on, and as long
/// as the offset of the fifth.
std::string_view expandablePart(std::string_view line) noexcept {
   const std::size_t first = line.find(',');
   if (first == std::string_view::npos) {
      return {};
   }
   std::size_t comma = first;
   for (unsigned i = 1; i < fieldCount && comma != std::string_view::npos; ++i) {
      comma = line.find(',', comma + 1);
   }
   return line.substr(first, comma);
}

} // namespace

RegisterFileParser::RegisterFileParser(const String& csvPath, std::uint8_t addrBlockSize)
   : _csvPath(csvPath), _addrBlockSize(addrBlockSize) {}

Ptr<HardwareRegisterFile> RegisterFileParser::parse() {
   std::ifstream in = openList(_csvPath);
   _model = Hardware::hardwareRegisterFileFactory(_csvPath);
   String buffer;
   readHeader(in, buffer);
   std::string_view line;
   while (Utils::getline_lea(in, buffer, line)) {
      if (!line.empty()) {
         _parseLine(line);
      }
   }
   if (in.bad()) {
      // Not the end of the file: what was read so far is not the whole list.
      Platform::throwErrno(fmt::format(readError, _csvPath));
   }
   return std::move(_model);
}

void RegisterFileParser::_parseLine(std::string_view line) {
   const int number = std::stoi(String(line.substr(0, line.find(','))));
   _expanded.clear();
   const std::uint32_t count = _expandArray(expandablePart(line), _expanded);
   _registers += count;
   _bytes += count > 1 ? static_cast<std::uint64_t>(count) * line.size() : 0;
   if (_registers > maxRegisters) {
      Platform::throwError(EINVAL, fmt::format(tooManyError, maxRegisters));
   }
   if (_bytes > maxExpandedBytes) {
      Platform::throwError(EINVAL, fmt::format(tooLargeError, maxExpandedBytes));
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
   while (found < fieldCount && Utils::tokenize(recordLine, position, field, ',')) {
      _parseField(found, field);
      ++found;
   }
   if (found < fieldCount) {
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
      if (_record.width > maxWidth) {
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
