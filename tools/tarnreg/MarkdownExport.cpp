#include "tools/tarnreg/MarkdownExport.h"

#include <fmt/format.h>

#include "tools/tarnreg/Printable.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

bool isPlain(char c) {
   return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ' ' ||
          static_cast<unsigned char>(c) >= 0x80;
}

/// As text: whatever might be a mark is a character reference.
std::string text(const std::string& words) {
   std::string out;
   for (const char c : words) {
      out += isPlain(c) || c == '-' ? std::string(1, c) : fmt::format("&#{};", int{c});
   }
   return out;
}

/// As code. Within backticks nothing can be escaped, so some names need the long form.
std::string code(const std::string& name) {
   for (const char c : name) {
      if (!isPlain(c) && std::string_view("_[]().:-+/,#@").find(c) == std::string_view::npos) {
         return "<code>" + text(name) + "</code>";
      }
   }
   return name.find_first_not_of(' ') == std::string::npos ? text(name) : "`" + name + "`";
}

} // namespace

std::string markdownOf(const RegisterSheet& sheet) {
   std::string out = fmt::format("# {}\n\n| Name | Address | Width | Access | Type |\n"
                                 "|---|---|---:|---|---|\n",
                                 text(printable(sheet.title)));
   for (const HardwareRegister* record : sheet.registers) {
      out += fmt::format("| {} | `{:#010x}` | {} | {} | {} |\n", code(shownName(record->name)),
                         record->address, record->width, record->writable ? "rw" : "ro",
                         HardwareRegister::regTypeToString(record->type));
   }
   return out;
}

} // namespace TarnReg
