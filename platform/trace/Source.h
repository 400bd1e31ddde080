#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "platform/entity/Export.h"

namespace Platform::Trace {

/// The least important level that a record can have.
inline constexpr int maxLevel = 9;

/// The threshold of a source that nothing was said about: failures, level 0, are on.
inline constexpr int defaultThreshold = 0;

/// The threshold of a source that emits nothing at all.
inline constexpr int off = -1;

/// Where trace records come from: a name, and the threshold up to which its records are emitted.
///
/// One object per name and source file, at namespace scope:
///
///     TARN_TRACE_SOURCE(traceSource, "TarnRegFile/TransportMethod");
///
/// or plainly `static constinit Trace::Source traceSource{"..."};`, which becomes known to the
/// registry (see levelsAre in Trace.h) only when it is asked about a level for the first time.
/// Both are initialised at compile time, so a static initialiser of any other file may already
/// trace through them. Several sources may have the same name and then have the same threshold.
///
/// Owned by whoever defines it; unregisters itself when it is destroyed, so a plugin can be
/// unloaded. Any thread may ask. Nothing here throws; errno is left alone.
class TARN_PLATFORM_API Source {
public:
   /// `name` must live as long as the source: a string literal.
   explicit constexpr Source(std::string_view name) noexcept : _name(name) {}
   ~Source();

   Source(const Source&) = delete;
   Source& operator=(const Source&) = delete;

   [[nodiscard]] std::string_view name() const noexcept { return _name; }

   /// Whether a record of `level` (0 to 9) is to be emitted. No is one relaxed load and one branch.
   [[nodiscard]] bool isEnabled(int level) noexcept {
      const int threshold = _threshold.load(std::memory_order_relaxed);
      return level <= threshold && (threshold != _unregistered || _firstUse(level));
   }

   /// The level up to which records are emitted, or `off`. Registers the source when it is not.
   [[nodiscard]] int threshold() noexcept;

   /// Makes the source known to the registry and gives it the threshold that its name has there.
   /// Done by itself on first use; harmless when repeated. Returns true, for use in initialisers.
   bool registered() noexcept;

private:
   friend class Sources;

   // Above every level, so that a source nobody registered yet is looked at more closely.
   static constexpr int _unregistered = maxLevel + 1;

   bool _firstUse(int level) noexcept;

   const std::string_view _name;
   // The registry's list runs through the sources themselves: registering allocates nothing and
   // so cannot fail.
   Source* _next = nullptr;
   Source* _previous = nullptr;
   std::atomic<std::int8_t> _threshold{_unregistered};
};

} // namespace Platform::Trace
