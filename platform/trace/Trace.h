#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/core.h>

#include "platform/entity/Export.h"
#include "platform/trace/ErrnoKeeper.h"
#include "platform/trace/Record.h"
#include "platform/trace/Source.h"

/// The trace facility: what the code does, said by named sources at levels 0 (failures) to 9
/// (every access), off by the source and by the level at next to no cost.
///
///     TARN_TRACE_SOURCE(traceSource, "TarnRegFile/TransportMethod");
///     ...
///     TARN_TRACE(traceSource, 8, "regRead", "{} at {:#x} is {:#x}", name, address, value);
///
/// Everything here may be used on any thread, from static initialisers and destructors, but not
/// in signal handlers.
namespace Platform::Trace {

class Sink;

/// Sets every source's threshold: "TarnRegFile/*=8,platform/tables=3,*bench*=off" (see Levels.h).
/// Replaces what was in force, the environment variable TARN_TRACE included; sources that come
/// later get their threshold from it too. Throws std::invalid_argument that names the first bad
/// entry, and then changes nothing.
TARN_PLATFORM_API void levelsAre(std::string_view spec);

/// What is in force, in the form that levelsAre takes.
[[nodiscard]] TARN_PLATFORM_API std::string levels();

/// The names of the sources known so far, sorted.
[[nodiscard]] TARN_PLATFORM_API std::vector<std::string> sourceNames();

/// Sends all further records to `sink` (null: nowhere) and returns the one that was there; at
/// first that is a StderrSink. Another thread may still be writing a record to the old one when
/// this returns.
TARN_PLATFORM_API std::shared_ptr<Sink> sinkIs(std::shared_ptr<Sink> sink) noexcept;

/// Formats and emits a record whether or not its level is enabled. TARN_TRACE asks first.
/// A text that cannot be formatted is replaced by one that says so.
TARN_PLATFORM_API void vemit(const Source& source, int level, std::string_view function,
                             fmt::string_view text, fmt::format_args args) noexcept;

template <typename... Args>
void emit(const Source& source, int level, std::string_view function,
          fmt::format_string<Args...> text, Args&&... args) noexcept {
   vemit(source, level, function, text, fmt::make_format_args(args...));
}

} // namespace Platform::Trace

/// Defines the trace source `variable` of this file under `name`, a string literal; known by
/// name as soon as the program or library that contains it is loaded.
#define TARN_TRACE_SOURCE(variable, name)                                                          \
   static constinit ::Platform::Trace::Source variable{name};                                      \
   [[maybe_unused]] static const bool variable##Registered_ = variable.registered()

/// TARN_TRACE(source, level, function, format, args...): emits a record if `source` has `level`
/// enabled. If not, that costs one relaxed load and one branch, and `args` are not evaluated. If
/// it has, `args` are formatted into `format`, a literal checked by the compiler. `function` is
/// the name to be shown. `source` and `level` may be evaluated twice. Throws only what evaluating
/// `args` throws; errno afterwards is what it was before.
#define TARN_TRACE(source, level, function, ...)                                                   \
   do {                                                                                            \
      if ((source).isEnabled(level)) [[unlikely]] {                                                \
         const ::Platform::Trace::ErrnoKeeper tarnTraceErrnoKeeper_;                               \
         ::Platform::Trace::emit((source), (level), (function), __VA_ARGS__);                      \
      }                                                                                            \
   } while (false)
