#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/entity/Export.h"

namespace Hardware {

/// What goes wrong in an access to a simulated device.
enum class FaultKind : std::uint8_t {
   nak,        ///< the device does not answer its address: ENXIO
   ioError,    ///< the transfer breaks off: EIO
   timeout,    ///< the bus hangs until the controller gives up: ETIMEDOUT
   shortRead,  ///< the device stops early: fewer bytes arrive than were asked for
   wrongBytes, ///< the bytes read come with bits inverted
};

/// The kind with this name ("nak", "eio", "timeout", "short", "wrong"), if there is one, and back.
TARN_PLATFORM_API std::optional<FaultKind> faultKindFromString(std::string_view name) noexcept;
TARN_PLATFORM_API std::string_view faultKindToString(FaultKind kind) noexcept;

/// Which accesses a fault looks at. An access is one whole transaction of a device; it is a read
/// if any part of it reads.
enum class FaultDirection : std::uint8_t { any, read, write };

/// The direction with this name ("any", "read", "write"), if there is one, and back.
TARN_PLATFORM_API std::optional<FaultDirection>
faultDirectionFromString(std::string_view name) noexcept;
TARN_PLATFORM_API std::string_view faultDirectionToString(FaultDirection direction) noexcept;

/// One fault and when it strikes. A plain value.
struct Fault {
   FaultKind kind = FaultKind::nak;
   FaultDirection direction = FaultDirection::any;
   std::uint64_t first = 1;     ///< strikes from the first-th matching access on; counts from 1
   std::uint64_t count = 0;     ///< so many times; 0 is for ever
   std::uint8_t xorMask = 0xff; ///< wrongBytes: bits that come inverted
   std::size_t length = 0;      ///< shortRead: bytes that still arrive
};

/// What a simulated device does wrong, and how slow it is: faults, a delay for each access, and
/// whether the device is there at all. Every simulated device has one; it asks once an access.
///
/// Faults count the accesses from the moment at which they were added. When several strike in the
/// same access, the first error among them wins, masks are combined and the shortest length holds.
///
/// May be used on any thread.
class TARN_PLATFORM_API FaultPlan {
public:
   /// What happens to one access.
   struct Outcome {
      int error = 0;                     ///< 0, or the errno that the access fails with
      std::optional<std::size_t> length; ///< bytes that still arrive, if the read is cut short
      std::uint8_t xorMask = 0;          ///< bits that come inverted
      std::chrono::microseconds delay{}; ///< how long the access takes
   };

   FaultPlan();
   ~FaultPlan();
   FaultPlan(const FaultPlan&) = delete;
   FaultPlan& operator=(const FaultPlan&) = delete;

   void add(const Fault& fault);

   /// Forgets all faults; delay and presence stay.
   void clear();

   /// The faults that may still strike, in the order in which they were added.
   std::vector<Fault> faults() const;

   /// How long every access takes, failing ones included. Zero at first.
   std::chrono::microseconds delay() const;
   void delayIs(std::chrono::microseconds delay);

   /// Whether the device is gone. Accesses to a lost device fail with ENXIO and are not counted
   /// by faults.
   bool lost() const;
   void lostIs(bool lost);

   /// Counts an access and says what happens to it.
   Outcome access(bool isRead);

private:
   struct Armed {
      Fault fault;
      std::uint64_t seen = 0;
   };

   mutable std::mutex _mutex;
   std::vector<Armed> _faults;
   std::chrono::microseconds _delay{};
   bool _lost = false;
};

} // namespace Hardware
