#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "TarnRegFile/PciAddress.h"

namespace Board {

/// The PCI function that the whole of `text` names, "0000:03:00.0", or "03:00.0" in domain 0:
/// hexadecimal digits of either case. Nothing if it names none; devices go to 1f, functions to 7.
std::optional<TarnRegFile::PciAddress> pciFunctionFrom(std::string_view text) noexcept;

/// "0000:03:00.0", as the kernel writes it.
std::string pciFunctionText(const TarnRegFile::PciAddress& address);

} // namespace Board
