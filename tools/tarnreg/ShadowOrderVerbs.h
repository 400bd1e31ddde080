#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/tarnreg/Pace.h"
#include "tools/tarnreg/Report.h"
#include "tools/tarnreg/ShadowView.h"

namespace TarnReg {

/// How orderShadow() goes about it.
struct ShadowOrderOptions {
   bool wait = true; ///< for its end; else it only prints the operation's id
   Pace::Clock::duration timeout = std::chrono::seconds(10);
};

/// Has "NAME=VALUE" assignments written in their order, as one operation, a pattern on the left
/// for each register that it matches. Everything is checked before it is submitted: with one bad
/// assignment nothing is. Prints the writes that were made. One that stopped before its last write
/// is a failure (deviceError), one that has not ended in time too (timeout): it stands.
void orderShadow(ShadowView& view, const std::vector<std::string>& assignments,
                 const ShadowOrderOptions& options, Report& report);

/// Tells what came of an operation that was ordered before, as orderShadow() does; waits for its
/// end until `timeout` is over. One that nothing is known of is a failure (unknownName).
void showOutcome(ShadowView& view, const std::string& id, Pace::Clock::duration timeout,
                 Report& report);

/// Takes an operation back that has not begun, and prints its id. One that has begun is a failure
/// (refused), one that nothing is known of too (unknownName).
void cancelOrder(ShadowView& view, const std::string& id, Report& report);

} // namespace TarnReg
