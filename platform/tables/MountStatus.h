#pragma once

#include <cstdint>

#include "platform/entity/EnumType.h"

namespace Platform::Tables {

/// Where an entity's table stands.
enum class MountStatus : std::uint8_t {
   unmounted, ///< Not mounted yet, or not any more.
   mounted,   ///< Usable.
   failed,    ///< The last attempt to mount it failed.
   corrupted, ///< Mounted, but found damaged: not to be relied on.
};

using Platform::operator<<;

} // namespace Platform::Tables

template <>
struct Platform::EnumTraits<Platform::Tables::MountStatus> {
   static constexpr std::string_view name = "Platform::Tables::MountStatus";
   static constexpr EnumEntry entries[] = {
      {0, "unmounted"}, {1, "mounted"}, {2, "failed"}, {3, "corrupted"}};
};
