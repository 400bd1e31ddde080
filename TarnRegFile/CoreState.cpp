#include "TarnRegFile/CoreState.h"

#include <algorithm>
#include <cstring>

#include "platform/entity/Errors.h"
#include "platform/entity/LittleEndian.h"

namespace TarnRegFile::Sable {

namespace {

namespace LittleEndian = Platform::LittleEndian;

constexpr const char* noState = "stored CoreState is too short, or none";

constexpr std::size_t versionAt = 8;
constexpr std::size_t phaseAt = 9;
constexpr std::size_t readyAt = 10;
constexpr std::size_t validAt = 11;
constexpr std::size_t words32At = 12; // five of them
constexpr std::size_t words64At = 32; // seven of them
constexpr std::size_t textSizeAt = 88;

std::size_t textSize(const String& text) {
   return std::min(text.size(), CoreState::longestError);
}

} // namespace

void CoreState::lastErrorIs(std::string_view text) {
   std::size_t size = std::min(text.size(), longestError);
   // Not in the middle of a character of UTF-8.
   while (size > 0 && size < text.size() &&
          (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80) {
      --size;
   }
   lastError = text.substr(0, size);
}

std::size_t CoreState::serializeLen() const noexcept {
   return fixedLen + textSize(lastError);
}

void CoreState::serialize(std::uint8_t* buffer) const noexcept {
   key().serialize(buffer);
   buffer[versionAt] = layoutVersion;
   buffer[phaseAt] = static_cast<std::uint8_t>(phase);
   buffer[readyAt] = ready ? 1 : 0;
   buffer[validAt] = valid ? 1 : 0;
   std::uint8_t* at = buffer + words32At;
   for (const std::uint32_t word : {generation, pid, registersRead, registersTotal, lastRequest}) {
      LittleEndian::store32(at, word);
      at += 4;
   }
   for (const std::uint64_t word :
        {syncMicros, errors, losses, accessWall, accessMonotonic, changedWall, changedMonotonic}) {
      LittleEndian::store64(at, word);
      at += 8;
   }
   LittleEndian::store32(buffer + textSizeAt, static_cast<std::uint32_t>(textSize(lastError)));
   std::memcpy(buffer + fixedLen, lastError.data(), textSize(lastError));
}

std::size_t CoreState::deserializeLen(const std::uint8_t* buffer, std::size_t length) noexcept {
   if (length < fixedLen || buffer[versionAt] != layoutVersion ||
       buffer[phaseAt] > static_cast<std::uint8_t>(CorePhase::stopped) || buffer[readyAt] > 1 ||
       buffer[validAt] > 1) {
      return 0;
   }
   const std::size_t text = LittleEndian::load32(buffer + textSizeAt);
   return text <= longestError && fixedLen + text <= length ? fixedLen + text : 0;
}

void CoreState::deserialize(const std::uint8_t* buffer, std::size_t length) {
   const std::size_t size = deserializeLen(buffer, length);
   if (size == 0) {
      throw Platform::RangeError(noState);
   }
   phase = static_cast<CorePhase>(buffer[phaseAt]);
   ready = buffer[readyAt] != 0;
   valid = buffer[validAt] != 0;
   const std::uint8_t* at = buffer + words32At;
   for (std::uint32_t* word : {&generation, &pid, &registersRead, &registersTotal, &lastRequest}) {
      *word = LittleEndian::load32(at);
      at += 4;
   }
   for (std::uint64_t* word : {&syncMicros, &errors, &losses, &accessWall, &accessMonotonic,
                               &changedWall, &changedMonotonic}) {
      *word = LittleEndian::load64(at);
      at += 8;
   }
   lastError.assign(reinterpret_cast<const char*>(buffer) + fixedLen, size - fixedLen);
}

} // namespace TarnRegFile::Sable
