#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/entity/Export.h"

namespace Platform::Trace {

/// Which threshold each source name gets: the parsed form of "TarnRegFile/*=8,platform/tables=3".
///
/// Entries are separated by commas; each is NAME=LEVEL. NAME may have any number of `*`, each
/// standing for any characters, `/` included, or none. LEVEL is a digit, 0 to 9, or `off`. Blanks
/// around entries, names and levels are ignored, and so are empty entries. Where several entries
/// match a name the last one counts; where none does the threshold is 0.
///
/// A plain value; each thread may use its own. Only allocation failures throw, unless said
/// otherwise.
class TARN_PLATFORM_API Levels {
public:
   Levels() = default;

   /// Throws std::invalid_argument that names the first bad entry.
   explicit Levels(std::string_view spec);

   /// Takes the good entries of `spec` and adds a text to `errors` for each bad one.
   Levels(std::string_view spec, std::vector<std::string>& errors);

   [[nodiscard]] int threshold(std::string_view sourceName) const noexcept;

   /// The entries again, in order, as the constructor takes them.
   [[nodiscard]] std::string spec() const;

private:
   struct Entry {
      std::string pattern;
      int level;
   };

   std::vector<Entry> _entries;
};

} // namespace Platform::Trace
