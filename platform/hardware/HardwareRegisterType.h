#pragma once

#include <cstdint>

#include "platform/entity/EnumType.h"

namespace Hardware {

/// What a register is for, as a register list says it. Stored in 8 bits; 0 is "not known".
///
/// The type steers tools, not accesses: a dump leaves "cfg" registers out, because reading them
/// can start what they configure.
enum class HardwareRegisterType : std::uint8_t {
   unknown = 0,   ///< "unknown": no type, or one that this build does not know
   cfg = 1,       ///< "cfg": configuration, left out of dumps
   status = 2,    ///< "status": state of the device, read without side effects
   counter = 3,   ///< "counter": counts events
   control = 4,   ///< "control": written to act on the device
   id = 5,        ///< "id": identification, version or revision
   scratch = 6,   ///< "scratch": holds what was written, without any effect
   interrupt = 7, ///< "interrupt": pending or latched interrupts
   mask = 8,      ///< "mask": enables or masks interrupts
   sensor = 9,    ///< "sensor": a measured quantity
   led = 10,      ///< "led": an indicator
   data = 11,     ///< "data": memory or FIFO contents
};

} // namespace Hardware

template <>
struct Platform::EnumTraits<Hardware::HardwareRegisterType> {
   static constexpr std::string_view name = "Hardware::HardwareRegisterType";
   static constexpr EnumEntry entries[] = {
      {0, "unknown"}, {1, "cfg"},       {2, "status"}, {3, "counter"}, {4, "control"}, {5, "id"},
      {6, "scratch"}, {7, "interrupt"}, {8, "mask"},   {9, "sensor"},  {10, "led"},    {11, "data"},
   };
};
