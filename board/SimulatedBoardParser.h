#pragma once

#include <string>
#include <string_view>

#include <toml++/toml.h>

#include "board/SimulatedBoard.h"

namespace Board {

/// Reads the `[simulate]` tables of the board file at `path`; docs/board-file.md describes them.
/// Tables of other programs are left alone. Register lists are looked for beside the file.
///
/// Throws FileError, "FILE:LINE:COLUMN: what is wrong", for what is no TOML, an unknown key, a bad
/// value, what contradicts something else on the board, and for a file with nothing to simulate.
SimulatedBoard simulatedBoardFromFile(const std::string& path);

/// The same for the text of a file; `path` names it in messages and says where lists are.
SimulatedBoard simulatedBoardFromText(std::string_view text, const std::string& path);

/// The same for a file that is parsed already.
SimulatedBoard simulatedBoardFromToml(const toml::table& root, const std::string& path);

} // namespace Board
