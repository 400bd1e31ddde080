#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Platform::Trace {

/// One character of a text. Internal to the platform.
struct Utf8Character {
   std::size_t bytes; ///< How many bytes it takes; 0: what is there is not UTF-8.
   std::uint32_t code;
};

/// The character that `text`, which must not be empty, begins with. Overlong forms, surrogates
/// and codes beyond Unicode are not UTF-8: a lenient reader might make control characters of them.
Utf8Character firstUtf8Character(std::string_view text) noexcept;

} // namespace Platform::Trace
