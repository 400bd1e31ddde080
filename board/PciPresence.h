#pragma once

#include <optional>
#include <string>

namespace Board {

/// Whether the PCI device that the resource file at `path` belongs to is on its bus: by the vendor
/// in its configuration space, which reads 0xffff where nobody answers, and by whether the system
/// knows the device at all. None if nobody can tell: the file is no device's, or may not be looked
/// at.
std::optional<bool> pciIsThere(const std::string& path);

} // namespace Board
