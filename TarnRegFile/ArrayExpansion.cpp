#include "TarnRegFile/ArrayExpansion.h"

#include <cerrno>
#include <exception>
#include <string>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/Fatal.h"

namespace TarnRegFile {

namespace {

/// A range of indices and the literal text that follows it, up to the next range.
struct Range {
   std::int64_t lower;
   std::int64_t upper;
   std::string_view after;

   std::uint64_t size() const noexcept { return static_cast<std::uint64_t>(upper - lower) + 1; }
};

struct Brackets {
   std::size_t open = std::string_view::npos;
   std::size_t colon = 0;
   std::size_t close = 0;

   bool found() const noexcept { return open != std::string_view::npos; }
};

/// The first pair of brackets from `position` on that holds a colon and no other bracket.
/// Linear: each step moves behind the closing bracket that it looked at.
Brackets findRange(std::string_view text, std::size_t position) {
   while (true) {
      const std::size_t outer = text.find('[', position);
      const std::size_t close = outer == std::string_view::npos ? outer : text.find(']', outer + 1);
      if (close == std::string_view::npos) {
         return {};
      }
      const std::size_t open = text.rfind('[', close);
      const std::size_t colon = text.substr(open, close - open).find(':');
      if (colon != std::string_view::npos) {
         return {open, open + colon, close};
      }
      position = close + 1;
   }
}

int boundAt(std::string_view text, std::size_t begin, std::size_t end) {
   return std::stoi(String(text.substr(begin, end - begin)));
}

Range readRange(std::string_view text, const Brackets& brackets) {
   const int lower = boundAt(text, brackets.open + 1, brackets.colon);
   const int upper = boundAt(text, brackets.colon + 1, brackets.close);
   return {lower, upper, {}};
}

/// Refuses an expansion that would not fit in memory before any of it is made.
void checkSize(std::uint64_t count, std::size_t length) {
   if (count > maxArrayExpansion) {
      Platform::throwError(EINVAL, fmt::format("Register array expands to more than {} registers",
                                               maxArrayExpansion));
   }
   if (count > 1 && count * length > maxArrayExpansionBytes) {
      Platform::throwError(EINVAL, fmt::format("Register array expands to more than {} bytes",
                                               maxArrayExpansionBytes));
   }
}

/// Appends every combination, the leftmost index varying slowest.
void appendAll(std::string_view head, const std::vector<Range>& ranges, std::uint64_t count,
               std::vector<String>& out) {
   std::vector<std::uint64_t> index(ranges.size(), 0);
   for (std::uint64_t n = 0; n < count; ++n) {
      String text(head);
      for (std::size_t i = 0; i < ranges.size(); ++i) {
         const auto value =
            static_cast<std::uint32_t>(ranges[i].lower + static_cast<std::int64_t>(index[i]));
         fmt::format_to(std::back_inserter(text), "{}]{}", value, ranges[i].after);
      }
      out.push_back(std::move(text));
      for (std::size_t i = ranges.size(); i-- > 0;) {
         if (++index[i] < ranges[i].size()) {
            break;
         }
         index[i] = 0;
      }
   }
}

} // namespace

std::uint32_t _expandArray(std::string_view text, std::vector<String>& out) {
   Brackets brackets = findRange(text, 0);
   if (!brackets.found()) {
      out.emplace_back(text);
      return 1;
   }
   // Literal pieces end with the opening bracket of the range behind them; the closing bracket is
   // written with the index.
   const std::string_view head = text.substr(0, brackets.open + 1);
   std::vector<Range> ranges;
   std::uint64_t count = 1;
   while (brackets.found()) {
      Range range = readRange(text, brackets);
      if (range.lower > range.upper) {
         Platform::fatalAssertion("TarnRegFile/RegisterFileHelper", "_expandArray",
                                  "upper >= lower && \"incorrect sub-array index values!\"");
      }
      // The count so far is small and the range at most 2^32: the product cannot wrap.
      count *= range.size();
      checkSize(count, text.size());
      const std::size_t begin = brackets.close + 1;
      brackets = findRange(text, begin);
      range.after =
         text.substr(begin, brackets.found() ? brackets.open + 1 - begin : std::string_view::npos);
      ranges.push_back(range);
   }
   const std::size_t before = out.size();
   try {
      appendAll(head, ranges, count, out);
   } catch (...) {
      out.resize(before);
      throw;
   }
   return static_cast<std::uint32_t>(count);
}

bool hasReversedArrayBounds(std::string_view text) noexcept {
   std::uint64_t count = 1;
   try {
      for (Brackets brackets = findRange(text, 0); brackets.found();
           brackets = findRange(text, brackets.close + 1)) {
         const Range range = readRange(text, brackets);
         if (range.lower > range.upper) {
            return true;
         }
         count *= range.size();
         checkSize(count, text.size());
      }
   } catch (const std::exception&) {
      // The expansion ends there, with an exception and not with the process.
   }
   return false;
}

} // namespace TarnRegFile
