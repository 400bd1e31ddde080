#pragma once

#include <cstdint>
#include <string_view>

#include "platform/entity/EnumType.h"

namespace EntityTest {
enum class Mode : std::uint8_t { off = 0, on = 1, turbo = 200 };
} // namespace EntityTest

template <>
struct Platform::EnumTraits<EntityTest::Mode> {
   static constexpr std::string_view name = "EntityTest::Mode";
   static constexpr EnumEntry entries[] = {{0, "Off"}, {1, "On"}, {200, "Turbo"}};
};

namespace EntityTest {
using Platform::operator<<;
} // namespace EntityTest
