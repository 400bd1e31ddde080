#include "tools/tarnreg/NumberFormat.h"

#include <any>

#include <fmt/format.h>

#include "platform/entity/Value.h"
#include "tools/tarnreg/Failure.h"

namespace TarnReg {

std::string formatNumber(std::uint32_t value, std::uint32_t width, NumberBase base) {
   switch (base) {
   case NumberBase::dec:
      return fmt::format("{}", value);
   case NumberBase::bin:
      return fmt::format("0b{:0{}b}", value, width == 0 ? 1 : width);
   case NumberBase::hex:
      break;
   }
   return fmt::format("0x{:0{}x}", value, width == 0 ? 1 : (width + 3) / 4);
}

std::uint32_t parseNumber(const std::string& text, const std::string& what) {
   try {
      return std::any_cast<std::uint32_t>(
         Platform::valueType<std::uint32_t>().fromText(text, nullptr));
   } catch (const Platform::RangeError&) {
      throw Failure(ExitCode::usage,
                    fmt::format("{}: '{}' is no number from 0 to 0xffffffff", what, text));
   }
}

} // namespace TarnReg
