#pragma once

#include <string>
#include <string_view>

#include "tools/tarnsim/Board.h"

namespace TarnSim {

/// Reads the `[simulate]` tables of the board file at `path`; docs/board-file.md describes them.
/// Tables of other programs are left alone. Register lists are looked for beside the file.
///
/// Throws Failure, "FILE:LINE:COLUMN: what is wrong", for what is no TOML, an unknown key, a bad
/// value, and what contradicts something else on the board.
Board boardFromFile(const std::string& path);

/// The same for the text of a file; `path` names it in messages and says where lists are.
Board boardFromText(std::string_view text, const std::string& path);

} // namespace TarnSim
