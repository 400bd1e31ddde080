#pragma once

#include <cstdint>

#include "platform/entity/EnumType.h"

namespace Hardware {

/// How far a request is, and how it ended. Below 2 it has not; 3 is the only good end.
enum class SornStatus : std::uint8_t {
   idle = 0,    ///< not submitted
   pending = 1, ///< submitted
   failed = 2,  ///< the bus could not be used
   success = 3,
   timedOut = 4,  ///< not done by its deadline, or the bus gave up waiting
   cancelled = 5, ///< the access manager went before it was done
   noDevice = 6,  ///< nobody answers at the address
   busError = 7,  ///< the transfer broke off
};

/// What the client says of a request.
enum class SornRequestState : std::uint8_t {
   idle = 0,      ///< it is being put together; or it is taken back
   submitted = 1, ///< it is to be done
};

} // namespace Hardware

template <>
struct Platform::EnumTraits<Hardware::SornStatus> {
   static constexpr std::string_view name = "Hardware::SornStatus";
   static constexpr EnumEntry entries[] = {{0, "idle"},     {1, "pending"},  {2, "failed"},
                                           {3, "success"},  {4, "timedOut"}, {5, "cancelled"},
                                           {6, "noDevice"}, {7, "busError"}};
};

template <>
struct Platform::EnumTraits<Hardware::SornRequestState> {
   static constexpr std::string_view name = "Hardware::SornRequestState";
   static constexpr EnumEntry entries[] = {{0, "idle"}, {1, "submitted"}};
};
