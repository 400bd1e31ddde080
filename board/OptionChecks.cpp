#include "board/OptionChecks.h"

#include <charconv>

#include <fmt/format.h>

#include "board/Number.h"

namespace Board {

CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most) {
   return CLI::Validator(
      [least, most](std::string& word) {
         const auto number = numberFrom(word);
         if (!number || *number < least || *number > most) {
            return fmt::format("'{}' is no whole number from {} to {}", word, least, most);
         }
         word = std::to_string(*number);
         return std::string();
      },
      "");
}

CLI::Validator secondsUpToAYear() {
   return CLI::Validator(
      [](const std::string& word) {
         constexpr double aYear = 31536000;
         double number = -1;
         const char* end = word.data() + word.size();
         const auto [stop, error] = std::from_chars(word.data(), end, number);
         const bool isOne = error == std::errc() && stop == end && number >= 0 && number <= aYear;
         return isOne ? std::string()
                      : fmt::format("'{}' is no time in seconds, from 0 to {:.0f}", word, aYear);
      },
      "");
}

} // namespace Board
