#include "TarnRegFile/RegisterLine.h"

#include <charconv>
#include <string>
#include <system_error>

namespace TarnRegFile {

int registerNumber(std::string_view line) {
   return std::stoi(std::string(line.substr(0, line.find(','))));
}

std::string_view expandablePart(std::string_view line) noexcept {
   const std::size_t first = line.find(',');
   if (first == std::string_view::npos) {
      return {};
   }
   std::size_t comma = first;
   for (unsigned i = 1; i < registerFieldCount && comma != std::string_view::npos; ++i) {
      comma = line.find(',', comma + 1);
   }
   return line.substr(first, comma);
}

bool parseDigits(std::string_view field, std::uint32_t& value) noexcept {
   const char* end = field.data() + field.size();
   const auto [stop, error] = std::from_chars(field.data(), end, value);
   return error == std::errc() && stop == end;
}

} // namespace TarnRegFile
