#include "platform/trace/Utf8.h"

namespace Platform::Trace {

Utf8Character firstUtf8Character(std::string_view text) noexcept {
   const auto byte = [&](std::size_t at) {
      return static_cast<std::uint32_t>(static_cast<unsigned char>(text[at]));
   };
   const std::uint32_t lead = byte(0);
   if (lead < 0x80) {
      return {1, lead};
   }
   std::size_t bytes = 0;
   std::uint32_t code = 0;
   std::uint32_t least = 0;
   if ((lead & 0xe0U) == 0xc0) {
      bytes = 2;
      code = lead & 0x1fU;
      least = 0x80;
   } else if ((lead & 0xf0U) == 0xe0) {
      bytes = 3;
      code = lead & 0x0fU;
      least = 0x800;
   } else if ((lead & 0xf8U) == 0xf0) {
      bytes = 4;
      code = lead & 0x07U;
      least = 0x10000;
   } else {
      return {0, 0};
   }
   if (text.size() < bytes) {
      return {0, 0};
   }
   for (std::size_t at = 1; at < bytes; ++at) {
      if ((byte(at) & 0xc0U) != 0x80) {
         return {0, 0};
      }
      code = (code << 6U) | (byte(at) & 0x3fU);
   }
   const bool surrogate = code >= 0xd800 && code <= 0xdfff;
   if (code < least || surrogate || code > 0x10ffff) {
      return {0, 0};
   }
   return {bytes, code};
}

} // namespace Platform::Trace
