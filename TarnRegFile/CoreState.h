#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/entity/EnumType.h"
#include "platform/entity/UniqueId.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// How far the owner of a core's hardware is with it.
enum class CorePhase : std::uint8_t {
   starting, ///< Nothing is known yet.
   probing,  ///< Every register is read, to see whether the device is there.
   syncing,  ///< The device is there; the shadow registers are being filled.
   ready,    ///< The shadow registers are served.
   waiting,  ///< The device cannot be used; it is probed again after a while.
   stopped,  ///< The owner has ended.
};

using Platform::operator<<;

/// How a core's owner says that it is doing: the one record of a core's state table. What is said
/// here is as of the last change; an owner that was killed leaves what it said last, and `pid`
/// tells whether it lives.
///
/// Stored form: 252 bytes at most, least significant byte first. docs/shadowd.md has it byte for
/// byte. A plain value.
struct TARN_API CoreState {
   static constexpr std::uint8_t layoutVersion = 1;
   static constexpr std::size_t longestError = 160; ///< bytes

   CorePhase phase = CorePhase::starting;
   bool ready = false;
   bool valid = false;              ///< whether the generation is
   std::uint32_t generation = 0;    ///< its id
   std::uint32_t pid = 0;           ///< the owner's, as its own process namespace numbers it
   std::uint32_t registersRead = 0; ///< in the probe or sync under way, or the last one
   std::uint32_t registersTotal = 0;
   std::uint32_t lastRequest = 0; ///< the last request for a new generation that was taken up
   std::uint64_t syncMicros = 0;  ///< how long the last complete sync took; 0 before it
   std::uint64_t errors = 0;      ///< failed accesses, since the owner started
   std::uint64_t losses = 0;      ///< times that the device was lost, since the owner started

   // Times in microseconds: of the wall clock since 1970, and of the monotonic clock. 0 for never.
   std::uint64_t accessWall = 0; ///< the last access that succeeded: how fresh the shadow is
   std::uint64_t accessMonotonic = 0;
   std::uint64_t changedWall = 0; ///< the last change of phase, readiness or generation
   std::uint64_t changedMonotonic = 0;

   /// The text of the last error, without what would make it too long; empty when there was none.
   String lastError;

   /// Sets lastError, cut off at the end of a character.
   void lastErrorIs(std::string_view text);

   /// The key of the only record.
   static constexpr Platform::UniqueId theKey{1};
   Platform::UniqueId key() const noexcept { return theKey; }

   bool operator==(const CoreState&) const = default;

   static constexpr std::string_view valueTypeName() noexcept {
      return "TarnRegFile::Sable::CoreState";
   }

   static constexpr std::size_t fixedLen = 92;
   static constexpr std::size_t maxSerializedLen = fixedLen + longestError;

   std::size_t serializeLen() const noexcept;

   /// Writes serializeLen() bytes.
   void serialize(std::uint8_t* buffer) const noexcept;

   /// Bytes of the record at the front of a buffer of `length` bytes, 0 if there is none: it is too
   /// short, of another layout, or what it says of itself is out of range.
   static std::size_t deserializeLen(const std::uint8_t* buffer, std::size_t length) noexcept;

   /// Reads what serialize() wrote. Throws Platform::RangeError, the record then unchanged, where
   /// deserializeLen() is 0.
   void deserialize(const std::uint8_t* buffer, std::size_t length);
};

} // namespace TarnRegFile::Sable

template <>
struct Platform::EnumTraits<TarnRegFile::Sable::CorePhase> {
   static constexpr std::string_view name = "TarnRegFile::Sable::CorePhase";
   static constexpr EnumEntry entries[] = {{0, "starting"}, {1, "probing"}, {2, "syncing"},
                                           {3, "ready"},    {4, "waiting"}, {5, "stopped"}};
};
