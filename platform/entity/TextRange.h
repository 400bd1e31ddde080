#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "platform/entity/Export.h"
#include "platform/entity/Types.h"

namespace Platform {

class Directory;

/// A stretch of text being parsed: parsers take what they understand off its front. It does not
/// own the text. References to named entities are resolved through its directory.
class TARN_PLATFORM_API TextRange {
public:
   explicit TextRange(std::string_view text, const Directory* directory = nullptr) noexcept
      : _rest(text), _directory(directory) {}

   std::string_view rest() const noexcept { return _rest; }
   bool empty() const noexcept { return _rest.empty(); }
   const Directory* directory() const noexcept { return _directory; }

   /// The next character, or NUL at the end.
   char peek() const noexcept { return _rest.empty() ? '\0' : _rest.front(); }

   /// Drops `count` characters off the front, or all when there are fewer.
   void advance(std::size_t count) noexcept { _rest.remove_prefix(std::min(count, _rest.size())); }

   /// Takes `prefix` off the front if it is there.
   bool consume(std::string_view prefix) noexcept;

   /// Takes `prefix` off the front, or throws RangeError naming what was expected and found.
   void require(std::string_view prefix);

   /// Takes the longest run of letters, digits and underscores off the front; may be empty.
   std::string_view takeWord() noexcept;

   /// Takes the longest run off the front that a number may consist of; may be empty.
   std::string_view takeNumber() noexcept;

private:
   std::string_view _rest;
   const Directory* _directory;
};

/// `text` in single quotes, so that unquote() gives back exactly its bytes: quotes, backslashes,
/// control characters and bytes that are not valid UTF-8 are escaped, other text stays readable.
TARN_PLATFORM_API String quote(std::string_view text);

/// Reads a quoted string off the front of `range`. Throws RangeError on a missing quote or an
/// unknown escape.
TARN_PLATFORM_API String unquote(TextRange& range);

} // namespace Platform
