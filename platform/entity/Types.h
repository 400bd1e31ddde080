#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Platform {

/// Text, as the whole system holds it: bytes, by convention UTF-8.
using String = std::string;

/// A byte buffer. Storage comes from the global allocator and so is aligned for any word size.
using Bytes = std::vector<std::uint8_t>;

} // namespace Platform
