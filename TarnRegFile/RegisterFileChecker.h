#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/entity/EnumType.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// How much a problem of a register list matters.
enum class ProblemSeverity : std::uint8_t {
   info,    ///< worth knowing
   warning, ///< loads, but hardly as it was meant
   error,   ///< does not load
};

/// One problem of a register list.
struct RegisterFileProblem {
   std::size_t line;   ///< from 1
   std::size_t column; ///< from 1, in bytes; where the field begins
   ProblemSeverity severity;
   String text; ///< what is found, and why it matters
};

/// Finds every problem of a CSV register list: what RegFileHelper::parseCsv() refuses, line by
/// line and not only the first, and what it tolerates in silence. A list has a problem of severity
/// `error` exactly when it does not load.
///
/// Used once, on one thread. Memory: the names in the file, one line, and the problems.
class TARN_API RegisterFileChecker {
public:
   /// The problems in the order of their lines. Throws std::system_error as parseCsv() does when
   /// the file cannot be opened or read.
   std::vector<RegisterFileProblem> check(const String& csvPath);

   /// The first line of a range whose lower bound is above the upper, the one mistake that stops
   /// the process that loads the list; 0 when there is none, and for what is no regular file,
   /// which can be read only once. Throws as check() does.
   static std::size_t stoppingLine(const String& csvPath);

private:
   struct Origin {
      std::size_t line;
      String name;
   };

   void _report(std::size_t column, ProblemSeverity severity, String text);
   void _checkHeader(std::string_view line);
   void _checkLine(std::string_view line);
   bool _checkNumber(std::string_view line, int& number);
   bool _expand(std::string_view line, std::vector<String>& expanded);
   bool _checkRecord(std::int64_t number, std::string_view expanded, std::string_view line,
                     bool first);
   bool _checkWidth(std::string_view field, std::size_t column);
   void _checkName(std::string_view name, std::size_t column);
   void _checkWords(std::string_view line);
   void _checkDuplicates(std::uint32_t number, const String& name, std::string_view line);

   std::vector<RegisterFileProblem> _problems;
   std::size_t _line = 0;
   String _lastName;
   bool _duplicateNameReported = false;
   bool _duplicateNumberReported = false;
   bool _tooManyReported = false;
   std::uint64_t _registers = 0;
   std::uint64_t _bytes = 0;
   std::unordered_map<String, std::size_t> _names;
   std::unordered_map<std::uint32_t, Origin> _numbers;
};

} // namespace TarnRegFile

template <>
struct Platform::EnumTraits<TarnRegFile::ProblemSeverity> {
   static constexpr std::string_view name = "TarnRegFile::ProblemSeverity";
   static constexpr EnumEntry entries[] = {{0, "info"}, {1, "warning"}, {2, "error"}};
};
