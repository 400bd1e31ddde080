#pragma once

#include <cstdint>
#include <string>

namespace TarnReg {

/// How values are shown.
enum class NumberBase { hex, dec, bin };

/// `value` as "0x1f", "31" or "0b11111"; hexadecimal and binary padded to `width` bits.
std::string formatNumber(std::uint32_t value, std::uint32_t width, NumberBase base);

/// Reads decimal, 0x hexadecimal or 0b binary. Throws Failure (usage) that names `what`.
std::uint32_t parseNumber(const std::string& text, const std::string& what);

} // namespace TarnReg
