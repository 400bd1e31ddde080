#include "platform/hardware/private/NameHash.h"

#include <random>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Hardware {

namespace {

std::uint64_t processSeed() {
   static const std::uint64_t seed = [] {
      std::random_device random;
      return std::uint64_t{random()} << 32 | random();
   }();
   return seed;
}

} // namespace

NameHash::NameHash() : _seed(processSeed()) {}

std::size_t NameHash::operator()(std::string_view name) const noexcept {
   return XXH3_64bits_withSeed(name.data(), name.size(), _seed);
}

} // namespace Hardware
