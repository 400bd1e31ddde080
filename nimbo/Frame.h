#pragma once

#include <cstddef>
#include <cstdint>

namespace Nimbo {

/// What a frame carries: its first byte. The header is described in smbus.proto.
enum class FrameKind : std::uint8_t { request = 1, response = 2 };

constexpr std::size_t frameHeaderSize = 4;

/// The most that the header's 24 bits can announce.
constexpr std::size_t longestPayload = 0xffffff;

} // namespace Nimbo
