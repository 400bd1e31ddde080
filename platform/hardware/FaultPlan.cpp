#include "platform/hardware/FaultPlan.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

namespace Hardware {

namespace {

constexpr std::array<std::pair<std::string_view, FaultKind>, 5> kinds = {{
   {"nak", FaultKind::nak},
   {"eio", FaultKind::ioError},
   {"timeout", FaultKind::timeout},
   {"short", FaultKind::shortRead},
   {"wrong", FaultKind::wrongBytes},
}};

constexpr std::array<std::pair<std::string_view, FaultDirection>, 3> directions = {{
   {"any", FaultDirection::any},
   {"read", FaultDirection::read},
   {"write", FaultDirection::write},
}};

template <typename Table>
auto valueOf(const Table& table, std::string_view name) noexcept
   -> std::optional<decltype(table[0].second)> {
   for (const auto& [known, value] : table) {
      if (known == name) {
         return value;
      }
   }
   return std::nullopt;
}

template <typename Table, typename Value>
std::string_view nameOf(const Table& table, Value value) noexcept {
   for (const auto& [name, known] : table) {
      if (known == value) {
         return name;
      }
   }
   return "unknown";
}

bool concerns(FaultDirection direction, bool isRead) noexcept {
   return direction == FaultDirection::any || (direction == FaultDirection::read) == isRead;
}

/// The number of the last access that the fault strikes in.
std::uint64_t lastOf(const Fault& fault) noexcept {
   const std::uint64_t first = std::max<std::uint64_t>(fault.first, 1);
   constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();
   return fault.count == 0 || fault.count > never - first ? never : first + fault.count - 1;
}

} // namespace

std::optional<FaultKind> faultKindFromString(std::string_view name) noexcept {
   return valueOf(kinds, name);
}

std::string_view faultKindToString(FaultKind kind) noexcept {
   return nameOf(kinds, kind);
}

std::optional<FaultDirection> faultDirectionFromString(std::string_view name) noexcept {
   return valueOf(directions, name);
}

std::string_view faultDirectionToString(FaultDirection direction) noexcept {
   return nameOf(directions, direction);
}

FaultPlan::FaultPlan() = default;
FaultPlan::~FaultPlan() = default;

void FaultPlan::add(const Fault& fault) {
   const std::lock_guard lock(_mutex);
   _faults.push_back({fault, 0});
}

void FaultPlan::clear() {
   const std::lock_guard lock(_mutex);
   _faults.clear();
}

std::vector<Fault> FaultPlan::faults() const {
   const std::lock_guard lock(_mutex);
   std::vector<Fault> faults;
   faults.reserve(_faults.size());
   for (const Armed& armed : _faults) {
      faults.push_back(armed.fault);
   }
   return faults;
}

std::chrono::microseconds FaultPlan::delay() const {
   const std::lock_guard lock(_mutex);
   return _delay;
}

void FaultPlan::delayIs(std::chrono::microseconds delay) {
   const std::lock_guard lock(_mutex);
   _delay = delay;
}

bool FaultPlan::lost() const {
   const std::lock_guard lock(_mutex);
   return _lost;
}

void FaultPlan::lostIs(bool lost) {
   const std::lock_guard lock(_mutex);
   _lost = lost;
}

FaultPlan::Outcome FaultPlan::access(bool isRead) {
   const std::lock_guard lock(_mutex);
   Outcome outcome;
   outcome.delay = _delay;
   if (_lost) {
      outcome.error = ENXIO;
      return outcome;
   }
   const auto setError = [&](int error) {
      if (outcome.error == 0) {
         outcome.error = error;
      }
   };
   bool spent = false;
   for (Armed& armed : _faults) {
      if (!concerns(armed.fault.direction, isRead)) {
         continue;
      }
      ++armed.seen;
      spent = spent || armed.seen >= lastOf(armed.fault);
      if (armed.seen < armed.fault.first || armed.seen > lastOf(armed.fault)) {
         continue;
      }
      switch (armed.fault.kind) {
      case FaultKind::nak:
         setError(ENXIO);
         break;
      case FaultKind::ioError:
         setError(EIO);
         break;
      case FaultKind::timeout:
         setError(ETIMEDOUT);
         break;
      case FaultKind::shortRead:
         outcome.length = std::min(outcome.length.value_or(armed.fault.length), armed.fault.length);
         break;
      case FaultKind::wrongBytes:
         outcome.xorMask = static_cast<std::uint8_t>(outcome.xorMask ^ armed.fault.xorMask);
         break;
      }
   }
   if (spent) {
      std::erase_if(_faults, [](const Armed& armed) { return armed.seen >= lastOf(armed.fault); });
   }
   return outcome;
}

} // namespace Hardware
