#pragma once

#include <string_view>

#include "agent/Arguments.h"
#include "agent/Config.h"

/// What the agent is to do, from its command line and the `[shadow]` table of its board file, which
/// docs/shadowd.md describes.
namespace Agent {

/// What both say together. Throws Board::FileError, "FILE:LINE:COLUMN: what is wrong", and
/// UsageError for what the command line asks for in vain.
Config configFrom(const Arguments& arguments);

/// The same for the text of a board file at arguments.boardFile.
Config configFrom(std::string_view text, const Arguments& arguments);

} // namespace Agent
