#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Board {

/// Finds, among names that are shown to it one by one, those that somebody who typed another one
/// may have meant: a few letters differ, or it goes on where he stopped. Upper and lower case are
/// the same to it. It belongs to one thread.
class NearNames {
public:
   explicit NearNames(std::string_view typed);

   void add(std::string_view name);

   /// The nearest ones, at most three; of the same distance the first in the alphabet.
   std::vector<std::string> nearest() const;

private:
   std::string _typed;
   std::size_t _limit; // edits, beyond which a name is another one
   std::vector<std::pair<std::size_t, std::string>> _near;
};

/// "; did you mean SCRATCH?" as it stands behind a message; nothing without names.
std::string didYouMean(const std::vector<std::string>& names);

} // namespace Board
