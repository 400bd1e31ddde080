#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Hardware {

/// Hash of a register's name. Names are short, and for them it takes a third of the instructions
/// that the hash of Abseil's tables takes.
///
/// It depends on a number that is another one in each process: whoever writes a register list must
/// not know which names share a place of a hash table, or he could make loading it take the square
/// of its time. May be used on any thread.
class NameHash {
public:
   NameHash();

   std::size_t operator()(std::string_view name) const noexcept;

private:
   std::uint64_t _seed;
};

} // namespace Hardware
