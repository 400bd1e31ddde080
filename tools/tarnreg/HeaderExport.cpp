#include "tools/tarnreg/HeaderExport.h"

#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

#include "tools/tarnreg/Printable.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

constexpr std::string_view suffixes[] = {"_ADDRESS", "_WIDTH", "_MASK", "_WRITABLE"};

// A compiler may tell names by fewer characters than this; those in use tell them by all.
constexpr std::size_t longest = 200;

bool isDigit(char c) {
   return c >= '0' && c <= '9';
}

bool isLetter(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// `name` with an underscore for each run of what an identifier does not have, and none at either
/// end: two in a row belong to the compiler, in C++.
std::string identifierPart(std::string_view name) {
   std::string out;
   for (const char c : name.substr(0, longest)) {
      if (isLetter(c) || isDigit(c)) {
         out += c;
      } else if (!out.empty() && out.back() != '_') {
         out += '_';
      }
   }
   while (!out.empty() && out.back() == '_') {
      out.pop_back();
   }
   return out;
}

/// What all names begin with.
std::string prefixOf(const std::string& title) {
   std::string out = identifierPart(title);
   for (char& c : out) {
      c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
   }
   return out.empty() ? "REG" : isDigit(out.front()) ? "REG_" + out : out;
}

/// In a comment: with its end, the beginning of another one and ends of lines taken apart.
std::string inComment(const std::string& text) {
   std::string out;
   for (const char c : text) {
      if (!out.empty() && ((out.back() == '*' && c == '/') || (out.back() == '/' && c == '*') ||
                           (out.back() == '?' && c == '?'))) {
         out += ' ';
      }
      out += c;
   }
   return out;
}

/// Names that nothing else in the header has.
class Identifiers {
public:
   explicit Identifiers(std::string prefix) : _prefix(std::move(prefix)) {}

   /// `_prefix` and `suffix`, which is nobody else's from now on.
   std::string own(std::string_view suffix) {
      std::string name = _prefix + std::string(suffix);
      _taken.insert(name);
      return name;
   }

   /// The beginning of the names of a register.
   std::string of(const HardwareRegister& record) {
      const std::string part = identifierPart(record.name);
      const std::string wanted = _prefix + "_" + (part.empty() ? "REG" : part);
      std::string base = wanted;
      for (std::size_t& next = _next.try_emplace(wanted, 2).first->second; !_take(base); ++next) {
         base = fmt::format("{}_{}", wanted, next);
      }
      return base;
   }

private:
   bool _take(const std::string& base) {
      for (const std::string_view suffix : suffixes) {
         if (_taken.count(base + std::string(suffix)) != 0) {
            return false;
         }
      }
      for (const std::string_view suffix : suffixes) {
         _taken.insert(base + std::string(suffix));
      }
      return true;
   }

   const std::string _prefix;
   std::unordered_set<std::string> _taken;
   std::unordered_map<std::string, std::size_t> _next; // number to try next, by what was wanted
};

std::uint32_t maskOf(std::uint32_t width) {
   return width >= 32 ? 0xFFFFFFFFU : (1U << width) - 1;
}

} // namespace

std::string headerOf(const RegisterSheet& sheet) {
   Identifiers identifiers(prefixOf(sheet.title));
   const std::string guard = identifiers.own("_REGISTERS_H");
   std::string out = fmt::format(
      "/* Registers of {}.\n"
      " *\n"
      " * Made by tarnreg export. Of each register: _ADDRESS as its transport counts, {} to\n"
      " * a register number; _WIDTH in bits and _MASK, the bits that carry meaning; _WRITABLE,\n"
      " * 0 or 1.\n"
      " */\n"
      "#ifndef {}\n"
      "#define {}\n"
      "\n"
      "#define {} {}u\n"
      "#define {} {}u\n",
      inComment(printable(sheet.title)), sheet.addrBlockSize, guard, guard,
      identifiers.own("_REGISTER_COUNT"), sheet.registers.size(),
      identifiers.own("_ADDRESS_UNITS_PER_REGISTER"), sheet.addrBlockSize);
   for (const HardwareRegister* record : sheet.registers) {
      const std::string name = identifiers.of(*record);
      out += fmt::format(
         "\n"
         "/* {} : {} bits, {}, {} */\n"
         "#define {}_ADDRESS {:#010x}u\n"
         "#define {}_WIDTH {}u\n"
         "#define {}_MASK {:#010x}u\n"
         "#define {}_WRITABLE {}\n",
         inComment(shownName(record->name)), record->width, record->writable ? "rw" : "ro",
         HardwareRegister::regTypeToString(record->type), name, record->address, name,
         record->width, name, maskOf(record->width), name, record->writable ? 1 : 0);
   }
   return out + fmt::format("\n#endif /* {} */\n", guard);
}

} // namespace TarnReg
