#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/tarnreg/Device.h"

namespace TarnReg {

/// Whether `name` matches `pattern`, in which * stands for any run of characters and ? for one.
bool matchesGlob(std::string_view pattern, std::string_view name) noexcept;

/// The registers that `pattern` names, without repetition: the register of exactly that name; else
/// those that an array range in it expands to ("FAN[0:3]_PWM"), each of which may hold * and ?.
/// Throws Failure (unknownName) with suggestions when there are none or an expanded name has none,
/// and Failure (usage) for a bad range.
std::vector<const TarnRegFile::HardwareRegister*> selectRegisters(Device& device,
                                                                  const std::string& pattern);

/// Throws Failure (unknownName) "no register <name>", with suggestions.
[[noreturn]] void throwUnknown(Device& device, std::string_view name);

/// Up to three of the device's register names that `name` may have been meant to be.
std::vector<std::string> suggestions(Device& device, std::string_view name);

} // namespace TarnReg
