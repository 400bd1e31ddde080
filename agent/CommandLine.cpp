#include "agent/CommandLine.h"

#include <string>

#include "board/Accounts.h"
#include "board/ServiceCommandLine.h"

namespace Agent {

using Board::ServiceCommandLine;

std::optional<ExitCode> parseCommandLine(int argc, const char* const* argv, Arguments& arguments) {
   using Times = ServiceCommandLine::Times;
   ServiceCommandLine line(
      "tarn-shadowd",
      "The shadow agent: owns cores of a board, keeps their registers in shared tables,\n"
      "and writes to the hardware what clients want.\n"
      "\n"
      "Examples:\n"
      "  tarn-shadowd --board board.toml\n"
      "  tarn-shadowd --board board.toml --core fpga --metrics 9101 --trace 1\n"
      "  tarn-shadowd --board board.toml --check",
      "Exit codes: 0 stopped as told, or nothing found by --check; 1 any failure; 2 wrong\n"
      "usage; 4 another agent owns a core. Signals: TERM and INT stop, HUP begins a new\n"
      "generation of all cores. Environment: TARN_TABLE_DIR (where the tables are),\n"
      "TARN_TRACE.",
      SHADOWD_VERSION);
   line.option(
      "--board", "FILE", "Board file (TOML); its table [shadow] counts",
      [&](const std::string& text) { arguments.boardFile = text; }, Times::needed);
   line.option(
      "--core", "NAME",
      "A device of the board file to look after; several are possible. In place of\nthose of "
      "the file",
      [&](const std::string& text) { arguments.cores.push_back(text); }, Times::many);
   line.option("--group", "GROUP", "Whose members may read and wish, by name or number",
               [&](const std::string& text) { arguments.group = Board::groupFrom(text); });
   line.flag("--others-read", arguments.othersRead, "Let everybody read, and nothing more");
   line.serviceOptions(arguments);
   switch (line.parse(argc, argv)) {
   case ServiceCommandLine::Outcome::told:
      return ExitCode::ok;
   case ServiceCommandLine::Outcome::wrong:
      return ExitCode::usage;
   case ServiceCommandLine::Outcome::parsed:
      break;
   }
   return std::nullopt;
}

} // namespace Agent
