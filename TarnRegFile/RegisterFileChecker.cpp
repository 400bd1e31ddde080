#include "TarnRegFile/RegisterFileChecker.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/TextRange.h"
#include "TarnRegFile/ArrayExpansion.h"
#include "TarnRegFile/RegisterFileStream.h"
#include "TarnRegFile/RegisterLine.h"
#include "TarnRegFile/Utils.h"

namespace TarnRegFile {

namespace {

using Platform::quote;

constexpr std::array<std::string_view, registerFieldCount> fieldNames{"number", "name", "type",
                                                                      "writeable", "width"};

/// A field as a message shows it: quoted, and not all of a long one.
String shown(std::string_view field) {
   constexpr std::size_t limit = 60;
   return field.size() <= limit ? quote(field) : quote(field.substr(0, limit)) + "...";
}

/// The column of a field in `line`, or of the line's end when it has no such field.
std::size_t columnOf(std::string_view line, unsigned field) noexcept {
   std::size_t begin = 0;
   for (unsigned i = 0; i < field; ++i) {
      const std::size_t comma = line.find(',', begin);
      if (comma == std::string_view::npos) {
         return line.size() + 1;
      }
      begin = comma + 1;
   }
   return begin + 1;
}

bool isBlank(char c) noexcept {
   return c == ' ' || c == '\t';
}

} // namespace

std::vector<RegisterFileProblem> RegisterFileChecker::check(const String& csvPath) {
   std::ifstream in = openRegisterFile(csvPath);
   String buffer;
   std::string_view line;
   _line = 1;
   if (!readRegisterFileHeader(in, buffer)) {
      const bool text = buffer.find('\0') == String::npos || buffer[0] != '\0';
      in.clear();
      in.seekg(0);
      if (in && text) {
         Utils::getline_lea(in, buffer, line);
      }
      _checkHeader(line);
      if (!in || !text) {
         return std::move(_problems);
      }
   }
   while (Utils::getline_lea(in, buffer, line)) {
      ++_line;
      if (!line.empty()) {
         _checkLine(line);
      }
   }
   checkReadToEnd(in, csvPath);
   return std::move(_problems);
}

std::size_t RegisterFileChecker::stoppingLine(const String& csvPath) {
   std::error_code ignored;
   if (!std::filesystem::is_regular_file(csvPath, ignored)) {
      return 0;
   }
   std::ifstream in = openRegisterFile(csvPath);
   String buffer;
   if (!readRegisterFileHeader(in, buffer)) {
      return 0;
   }
   std::string_view line;
   for (std::size_t number = 2; Utils::getline_lea(in, buffer, line); ++number) {
      if (hasReversedArrayBounds(expandablePart(line))) {
         return number;
      }
   }
   checkReadToEnd(in, csvPath);
   return 0;
}

void RegisterFileChecker::_report(std::size_t column, ProblemSeverity severity, String text) {
   _problems.push_back({_line, column, severity, std::move(text)});
}

void RegisterFileChecker::_checkHeader(std::string_view line) {
   const char* hint = line.starts_with("\xef\xbb\xbf") ? ", and no byte order mark before it" : "";
   _report(1, ProblemSeverity::error,
           fmt::format("Wrong CSV header: the first line must begin with {}{}",
                       quote(registerFileHeader), hint));
}

void RegisterFileChecker::_checkLine(std::string_view line) {
   int number = 0;
   std::vector<String> expanded;
   if (!_checkNumber(line, number) || !_expand(line, expanded)) {
      return;
   }
   _checkWords(line);
   _duplicateNameReported = false;
   _duplicateNumberReported = false;
   for (std::size_t k = 0; k < expanded.size(); ++k) {
      const std::int64_t recordNumber =
         static_cast<std::int64_t>(number) + static_cast<std::int64_t>(k);
      if (!_checkRecord(recordNumber, expanded[k], line, k == 0)) {
         return;
      }
   }
}

bool RegisterFileChecker::_checkNumber(std::string_view line, int& number) {
   const std::string_view field = line.substr(0, line.find(','));
   try {
      number = registerNumber(line);
   } catch (const std::out_of_range&) {
      _report(1, ProblemSeverity::error,
              fmt::format("stoi: number {} does not fit in 32 bits", shown(field)));
      return false;
   } catch (const std::invalid_argument&) {
      _report(1, ProblemSeverity::error,
              fmt::format("stoi: {} is no decimal number{}", shown(field),
                          line.front() == '#' ? "; there are no comments in a register list" : ""));
      return false;
   }
   const String plain = std::to_string(number);
   if (field != plain && field.find_first_not_of("0123456789") != std::string_view::npos &&
       number >= 0) {
      _report(
         1, ProblemSeverity::warning,
         fmt::format("number {} is read as {}; only decimal digits count", shown(field), plain));
   }
   return true;
}

bool RegisterFileChecker::_expand(std::string_view line, std::vector<String>& expanded) {
   const std::string_view part = expandablePart(line);
   const std::size_t column = columnOf(line, 1);
   if (hasReversedArrayBounds(part)) {
      _report(column, ProblemSeverity::error,
              "incorrect sub-array index values: the lower bound of a range is above the upper; "
              "loading this stops the process");
      return false;
   }
   try {
      const std::uint32_t count = _expandArray(part, expanded);
      _registers += count;
      _bytes += expandedBytes(count, line);
   } catch (const std::system_error& error) {
      _report(column, ProblemSeverity::error, error.what());
      return false;
   } catch (const std::logic_error&) {
      _report(column, ProblemSeverity::error,
              "stoi: a bound of an array range is no decimal number that fits in 32 bits");
      return false;
   }
   if (_registers > maxFileRegisters || _bytes > maxFileExpandedBytes) {
      if (!_tooManyReported) {
         _report(column, ProblemSeverity::error,
                 fmt::format("up to this line the file defines more than {} registers, or their "
                             "lines expand to more than {} bytes",
                             maxFileRegisters, maxFileExpandedBytes));
         _tooManyReported = true;
      }
      return false;
   }
   return true;
}

bool RegisterFileChecker::_checkRecord(std::int64_t number, std::string_view expanded,
                                       std::string_view line, bool first) {
   if (number < 0 || number > std::numeric_limits<std::uint32_t>::max()) {
      _report(1, ProblemSeverity::error,
              fmt::format("Invalid address token: register number {} is not within 0 to {}", number,
                          std::numeric_limits<std::uint32_t>::max()));
      return false;
   }
   // The number's field is never empty; what follows it begins with the comma.
   std::size_t position = expanded.empty() ? 0 : 1;
   unsigned found = 1;
   std::string_view field;
   while (found < registerFieldCount && Utils::tokenize(expanded, position, field, ',')) {
      if (found == 1) {
         _lastName = field;
         if (first) {
            _checkName(field, columnOf(line, 1));
         }
      } else if (found == 4 && !_checkWidth(field, columnOf(line, 4))) {
         return false;
      }
      ++found;
   }
   if (found < registerFieldCount && first) {
      _report(line.size() + 1, ProblemSeverity::warning,
              fmt::format("Incomplete CSV fields. Found {} fields only. From {} on the values of "
                          "the record before are taken",
                          found, fieldNames[found]));
   }
   _checkDuplicates(static_cast<std::uint32_t>(number), _lastName, line);
   return true;
}

bool RegisterFileChecker::_checkWidth(std::string_view field, std::size_t column) {
   std::uint32_t width = 0;
   if (!parseDigits(field, width)) {
      _report(column, ProblemSeverity::error,
              fmt::format("Invalid width token: {} is not a number of decimal digits only",
                          shown(field)));
      return false;
   }
   if (width > maxRegisterWidth) {
      _report(column, ProblemSeverity::error,
              fmt::format("Unsupported register width: {} is above {}", width, maxRegisterWidth));
      return false;
   }
   return true;
}

void RegisterFileChecker::_checkName(std::string_view name, std::size_t column) {
   if (name.empty()) {
      _report(column, ProblemSeverity::warning, "the register has no name");
      return;
   }
   if (isBlank(name.front()) || isBlank(name.back())) {
      _report(column, ProblemSeverity::warning,
              fmt::format("name {} begins or ends with a blank, which belongs to the name",
                          shown(name)));
   }
   for (const char c : name) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
         _report(column, ProblemSeverity::warning,
                 fmt::format("name {} holds a control character", shown(name)));
         return;
      }
   }
}

void RegisterFileChecker::_checkWords(std::string_view line) {
   std::size_t position = 0;
   unsigned count = 0;
   std::string_view field;
   while (Utils::tokenize(line, position, field, ',')) {
      const std::size_t column = static_cast<std::size_t>(field.data() - line.data()) + 1;
      if (count == 2 &&
          HardwareRegister::regTypeFromString(field) == HardwareRegisterType::unknown) {
         _report(column, ProblemSeverity::warning,
                 fmt::format("Unknown register type {}", shown(field)));
      }
      if (count == 3 && field != "true" && field != "false") {
         _report(column, ProblemSeverity::warning,
                 fmt::format("writeable word {} makes the register writable; only 'false' makes it "
                             "read-only",
                             shown(field)));
      }
      if (count == registerFieldCount) {
         _report(column, ProblemSeverity::info, "fields after the fifth are ignored");
         return;
      }
      ++count;
   }
}

void RegisterFileChecker::_checkDuplicates(std::uint32_t number, const String& name,
                                           std::string_view line) {
   const auto [named, newName] = _names.try_emplace(name, _line);
   if (!newName) {
      if (!_duplicateNameReported) {
         _report(columnOf(line, 1), ProblemSeverity::warning,
                 fmt::format("name {} is taken on line {}; this record replaces that one",
                             shown(name), named->second));
         _duplicateNameReported = true;
      }
      named->second = _line;
   }
   const auto [numbered, newNumber] = _numbers.try_emplace(number, Origin{_line, name});
   if (!newNumber) {
      if (!_duplicateNumberReported && numbered->second.name != name) {
         _report(1, ProblemSeverity::warning,
                 fmt::format("number {} is taken by {} on line {}; the address now names {}",
                             number, shown(numbered->second.name), numbered->second.line,
                             shown(name)));
         _duplicateNumberReported = true;
      }
      numbered->second = Origin{_line, name};
   }
}

} // namespace TarnRegFile
