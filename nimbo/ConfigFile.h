#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <toml++/toml.h>

#include "board/SimulatedBoard.h"
#include "nimbo/Config.h"

namespace Nimbo {

/// The `[nimbod]` table of a board file; docs/nimbod.md describes it. Tables of other programs are
/// left alone.
///
/// Everything throws Board::FileError, "FILE:LINE:COLUMN: what is wrong".
class ConfigFile {
public:
   explicit ConfigFile(const std::string& path);

   /// The same for the text of a file; `path` names it in messages.
   ConfigFile(std::string_view text, const std::string& path);

   /// Sets in `config` what the file says, and its buses. With `simulate` all of them are
   /// simulated; returns whether that is so, be it because the file asks for it.
   bool readInto(Config& config, bool simulate) const;

   /// What `[simulate]` says; an error when there is no such table.
   [[nodiscard]] Board::SimulatedBoard simulated() const;

private:
   const std::string _path;
   const toml::table _root;
};

} // namespace Nimbo
