#pragma once

#include <cstdint>

#include "platform/entity/EnumType.h"

namespace Platform::Tables {

/// What a mount may do. Several writers of one table take turns.
enum class TableRole : std::uint8_t { reader, writer };

using Platform::operator<<;

} // namespace Platform::Tables

template <>
struct Platform::EnumTraits<Platform::Tables::TableRole> {
   static constexpr std::string_view name = "Platform::Tables::TableRole";
   static constexpr EnumEntry entries[] = {{0, "reader"}, {1, "writer"}};
};
