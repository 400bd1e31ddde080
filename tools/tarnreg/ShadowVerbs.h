#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/tarnreg/Pace.h"
#include "tools/tarnreg/Report.h"
#include "tools/tarnreg/ShadowView.h"

/// What `tarnreg shadow` does with a core that another process owns: everything through its shared
/// tables, nothing on its bus.
namespace TarnReg {

/// Lists the registers that match `patterns`, all of them without patterns: what each holds, what
/// it is wished to hold, and whether these differ.
void listShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report);

/// Prints what the registers that match `patterns` hold; if the core is not ready, with a warning
/// that it is what they held last. So does listShadow().
void getShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report);

/// How setShadow() goes about it.
struct ShadowSetOptions {
   bool wait = false; ///< until all of it is held
   Pace::Clock::duration timeout = std::chrono::seconds(10);
};

/// Wishes "NAME=VALUE" assignments, a pattern on the left for each register that it matches.
/// Everything is checked before the first wish: with one bad assignment there is none. What a core
/// that is ready does not hold in time is a failure (timeout) each; the wishes stand.
void setShadow(ShadowView& view, const std::vector<std::string>& assignments,
               const ShadowSetOptions& options, Report& report);

/// Takes back the wishes for the registers that match `patterns`, and prints what they were.
void unsetShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report);

/// How watchShadow() goes about it.
struct ShadowWatchOptions {
   std::uint64_t count = 0;                           ///< changes; 0: no end
   std::optional<Pace::Clock::duration> timeout = {}; ///< for all of them; none: no end
};

/// Prints what the registers that match `patterns`, all of them without patterns, hold, and then
/// what they change to, until there were `count` changes, or the time is over, or the process is
/// interrupted. Throws Failure (timeout) when `count` did not come in time.
void watchShadow(ShadowView& view, const std::vector<std::string>& patterns,
                 const ShadowWatchOptions& options, Report& report);

/// Prints the registers that do not hold what they are wished to, of those that match `patterns` or
/// of all, and fails when there is any.
void diffShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report);

} // namespace TarnReg
