#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/entity/EnumType.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// How far an ordered operation has come.
enum class OrderedStage : std::uint8_t {
   waiting,  ///< It has not begun: the core is not ready, or others have their turn.
   running,  ///< It has begun. If its owner has died over it, it ends when the next one comes.
   complete, ///< It has ended, and every write was made.
   stopped,  ///< It has ended before its last write.
   unknown,  ///< There is none: it was taken back, or it has ended and its outcome is not kept.
};

using Platform::operator<<;

/// What is known of an ordered operation. A plain value.
struct OrderedOutcome {
   OrderedStage stage = OrderedStage::unknown;

   /// Writes that it has in all; 0 if it is unknown.
   std::size_t size = 0;

   /// Those that were made, in their order, as its owner has told. While it runs, and if the owner
   /// died over it, one more may have been made.
   std::vector<CoreRegister> writes;

   /// Of one that has stopped: the last error of the core, as of the moment when its end was
   /// noticed. It is why the operation stopped if it says so, "operation ... stopped after 1 of 3
   /// writes: ..."; otherwise something else has failed since, or its owner has died. Empty if no
   /// error is known.
   String lastError;

   bool hasEnded() const noexcept {
      return stage != OrderedStage::waiting && stage != OrderedStage::running;
   }
   bool isComplete() const noexcept { return stage == OrderedStage::complete; }

   bool operator==(const OrderedOutcome&) const = default;
};

} // namespace TarnRegFile::Sable

template <>
struct Platform::EnumTraits<TarnRegFile::Sable::OrderedStage> {
   static constexpr std::string_view name = "TarnRegFile::Sable::OrderedStage";
   static constexpr EnumEntry entries[] = {
      {0, "waiting"}, {1, "running"}, {2, "complete"}, {3, "stopped"}, {4, "unknown"}};
};
