#pragma once

#include <string>
#include <vector>

#include "platform/tables/TableDirectory.h"
#include "tools/tarnreg/Pace.h"
#include "tools/tarnreg/Report.h"

namespace TarnReg {

/// The cores whose tables are there.
std::vector<std::string> coresIn(const Platform::Tables::TableDirectory& directory);

/// Tells how cores are: what the owner of each said last, and whether it lives. Without names, of
/// all whose owners have said anything. One of which nothing is known is a failure (unknownName).
void showCores(const Platform::Tables::TableDirectory& directory,
               const std::vector<std::string>& cores, Report& report);

/// Has the owner of each core begin a new generation, one after the other, and tells how each core
/// is when it is ready in it. One that is not within `timeout` is a failure (timeout).
void resyncCores(const Platform::Tables::TableDirectory& directory,
                 const std::vector<std::string>& cores, Pace::Clock::duration timeout,
                 Report& report);

} // namespace TarnReg
