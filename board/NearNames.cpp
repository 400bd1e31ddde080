#include "board/NearNames.h"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace Board {

namespace {

bool isSame(char a, char b) {
   return std::toupper(static_cast<unsigned char>(a)) ==
          std::toupper(static_cast<unsigned char>(b));
}

bool goesOn(std::string_view name, std::string_view typed) {
   // Of fewer letters too much begins with them.
   constexpr std::size_t least = 3;
   return typed.size() >= least && name.size() > typed.size() &&
          std::equal(typed.begin(), typed.end(), name.begin(), isSame);
}

/// Edits that turn `a` into `b`, or anything above `limit` as soon as it is clear that there are
/// more. Two neighbours that change places are one edit: so fingers err.
std::size_t editDistance(std::string_view a, std::string_view b, std::size_t limit) {
   if ((a.size() > b.size() ? a.size() - b.size() : b.size() - a.size()) > limit) {
      return limit + 1;
   }
   // Edits from the first letters of a to the first j of b; and the same of one and two letters
   // less.
   std::vector<std::size_t> row(b.size() + 1);
   std::vector<std::size_t> before;
   std::vector<std::size_t> beforeThat;
   std::iota(row.begin(), row.end(), std::size_t{0});
   for (std::size_t i = 1; i <= a.size(); ++i) {
      beforeThat = std::exchange(before, row);
      row[0] = i;
      for (std::size_t j = 1; j <= b.size(); ++j) {
         const std::size_t replaced = before[j - 1] + (isSame(a[i - 1], b[j - 1]) ? 0 : 1);
         row[j] = std::min({replaced, before[j] + 1, row[j - 1] + 1});
         if (i > 1 && j > 1 && isSame(a[i - 1], b[j - 2]) && isSame(a[i - 2], b[j - 1])) {
            row[j] = std::min(row[j], beforeThat[j - 2] + 1);
         }
      }
      if (*std::min_element(row.begin(), row.end()) > limit &&
          *std::min_element(before.begin(), before.end()) > limit) {
         return limit + 1;
      }
   }
   return row[b.size()];
}

} // namespace

NearNames::NearNames(std::string_view typed)
   : _typed(typed), _limit(typed.size() < 2 ? 0 : (typed.size() + 2) / 3) {}

void NearNames::add(std::string_view name) {
   const std::size_t distance = editDistance(_typed, name, _limit);
   if (distance <= _limit) {
      _near.emplace_back(distance, name);
   } else if (goesOn(name, _typed)) {
      _near.emplace_back(_limit + 1, name);
   }
}

std::vector<std::string> NearNames::nearest() const {
   constexpr std::size_t most = 3;
   std::vector<std::pair<std::size_t, std::string>> near(std::min(most, _near.size()));
   std::partial_sort_copy(_near.begin(), _near.end(), near.begin(), near.end());
   std::vector<std::string> names;
   names.reserve(near.size());
   for (auto& [distance, name] : near) {
      names.push_back(std::move(name));
   }
   return names;
}

std::string didYouMean(const std::vector<std::string>& names) {
   std::string text;
   for (const std::string& name : names) {
      text += (text.empty() ? "; did you mean " : ", ") + name;
   }
   return text.empty() ? text : text + '?';
}

} // namespace Board
