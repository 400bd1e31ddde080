#include "tools/tarnreg/NamePattern.h"

#include <algorithm>
#include <cctype>
#include <system_error>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

#include "TarnRegFile/ArrayExpansion.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Printable.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

/// Edits that turn `a` into `b`, in upper case, or anything above `limit` as soon as it is clear
/// that there are more.
std::size_t editDistance(std::string_view a, std::string_view b, std::size_t limit) {
   if ((a.size() > b.size() ? a.size() - b.size() : b.size() - a.size()) > limit) {
      return limit + 1;
   }
   const auto upper = [](char c) { return std::toupper(static_cast<unsigned char>(c)); };
   std::vector<std::size_t> row(b.size() + 1);
   for (std::size_t j = 0; j <= b.size(); ++j) {
      row[j] = j;
   }
   for (std::size_t i = 1; i <= a.size(); ++i) {
      std::size_t diagonal = std::exchange(row[0], i);
      std::size_t best = row[0];
      for (std::size_t j = 1; j <= b.size(); ++j) {
         const std::size_t replaced = diagonal + (upper(a[i - 1]) == upper(b[j - 1]) ? 0 : 1);
         diagonal = row[j];
         row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
         best = std::min(best, row[j]);
      }
      if (best > limit) {
         return limit + 1;
      }
   }
   return row[b.size()];
}

std::vector<std::string> expand(const std::string& pattern) {
   std::vector<std::string> names;
   if (TarnRegFile::hasReversedArrayBounds(pattern)) {
      throw Failure(ExitCode::usage,
                    fmt::format("{}: the lower bound of the range is above the upper", pattern));
   }
   try {
      TarnRegFile::_expandArray(pattern, names);
   } catch (const std::system_error& error) {
      throw Failure(ExitCode::usage, fmt::format("{}: {}", pattern, error.what()));
   } catch (const std::logic_error&) {
      throw Failure(ExitCode::usage,
                    fmt::format("{}: a bound of the range is no decimal number", pattern));
   }
   return names;
}

bool isGlob(std::string_view pattern) noexcept {
   return pattern.find_first_of("*?") != std::string_view::npos;
}

} // namespace

void throwUnknown(Device& device, std::string_view name) {
   std::string text = fmt::format("no register {}", shownName(name));
   std::vector<std::string> near = suggestions(device, name);
   std::transform(near.begin(), near.end(), near.begin(), shownName);
   if (!near.empty()) {
      text += fmt::format("; did you mean {}?", fmt::join(near, ", "));
   }
   throw Failure(ExitCode::unknownName, text);
}

bool matchesGlob(std::string_view pattern, std::string_view name) noexcept {
   std::size_t p = 0;
   std::size_t n = 0;
   std::size_t star = std::string_view::npos;
   std::size_t resume = 0;
   while (n < name.size()) {
      if (p < pattern.size() && pattern[p] == '*') {
         star = p++;
         resume = n;
      } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
         ++p;
         ++n;
      } else if (star != std::string_view::npos) {
         p = star + 1;
         n = ++resume;
      } else {
         return false;
      }
   }
   return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

std::vector<const HardwareRegister*> selectRegisters(Device& device, const std::string& pattern) {
   if (const HardwareRegister* exact = device.find(pattern)) {
      return {exact};
   }
   std::vector<const HardwareRegister*> selected;
   std::unordered_set<const HardwareRegister*> seen;
   for (const std::string& name : expand(pattern)) {
      bool any = false;
      const auto select = [&](const HardwareRegister* record) {
         any = true;
         // "A*[0:1]*" finds A[0]_B[1] twice.
         if (seen.insert(record).second) {
            selected.push_back(record);
         }
      };
      if (const HardwareRegister* record = device.find(name)) {
         select(record);
      } else if (isGlob(name)) {
         for (const HardwareRegister* candidate : device.registers()) {
            if (matchesGlob(name, candidate->name)) {
               select(candidate);
            }
         }
      }
      if (!any) {
         throwUnknown(device, name);
      }
   }
   return selected;
}

std::vector<std::string> suggestions(Device& device, std::string_view name) {
   constexpr std::size_t most = 3;
   const std::size_t limit = (name.size() + 2) / 3;
   std::vector<std::pair<std::size_t, std::string>> near;
   for (const HardwareRegister* record : device.registers()) {
      const std::size_t distance = editDistance(name, record->name, limit);
      if (distance <= limit) {
         near.emplace_back(distance, record->name);
      }
   }
   const std::size_t count = std::min(most, near.size());
   std::partial_sort(near.begin(), near.begin() + static_cast<std::ptrdiff_t>(count), near.end());
   std::vector<std::string> names;
   for (std::size_t i = 0; i < count; ++i) {
      names.push_back(near[i].second);
   }
   return names;
}

} // namespace TarnReg
