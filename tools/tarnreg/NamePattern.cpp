#include "tools/tarnreg/NamePattern.h"

#include <algorithm>
#include <system_error>
#include <unordered_set>
#include <utility>

#include <fmt/format.h>

#include "board/NearNames.h"
#include "TarnRegFile/ArrayExpansion.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Printable.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

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
   std::vector<std::string> near = suggestions(device, name);
   std::transform(near.begin(), near.end(), near.begin(), shownName);
   throw Failure(ExitCode::unknownName,
                 fmt::format("no register {}{}", shownName(name), Board::didYouMean(near)));
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
   Board::NearNames near(name);
   for (const HardwareRegister* record : device.registers()) {
      near.add(record->name);
   }
   return near.nearest();
}

} // namespace TarnReg
