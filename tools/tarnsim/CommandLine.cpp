#include "tools/tarnsim/CommandLine.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "board/NearNames.h"
#include "board/SimulatedBoardParser.h"
#include "tools/tarnsim/ControlClient.h"
#include "tools/tarnsim/ExitCode.h"
#include "tools/tarnsim/Failure.h"
#include "tools/tarnsim/Session.h"

namespace TarnSim {

namespace {

constexpr const char* usage =
   R"(Runs a command that sees the devices of a board file at their usual paths:
/dev/i2c-N, /dev/spidevB.C and /sys/bus/pci/devices/BDF/resourceN.

Examples:
  tarnsim --board board.toml -- i2cget -y 3 0x50 0
  tarnsim --board board.toml -- tarnreg -b board.toml -d fpga read FPGA_ID
  tarnsim --board board.toml --control ./sim -- bash
  tarnsim control ./sim help

Usage: tarnsim --board FILE [--wire-log FILE] [--control SOCKET] [--] COMMAND [ARGUMENT...]
       tarnsim --board FILE --check
       tarnsim control [SOCKET] COMMAND [ARGUMENT...]

  --board FILE      the board file (TOML); its [simulate] tables count
  --check           only read the board file and say what is wrong with it
  --wire-log FILE   write every I2C transaction to FILE, one line each
  --control SOCKET  take commands at this Unix socket while the command runs;
                    the command finds its path in TARNSIM_CONTROL
  --help, --version

'tarnsim control' says one command to a running tarnsim: at SOCKET, which has
a slash in it, or else at the path in TARNSIM_CONTROL. 'tarnsim control help'
lists the commands.

Exits as the command did, or with 128 + N after signal N. Its own codes: 125 the
board could not be simulated, 126 the command cannot be run, 127 there is no such
command, 2 wrong usage.
)";

[[noreturn]] void failUsage(const std::string& text) {
   throw Failure(ExitCode::usage, text + "; try 'tarnsim --help'");
}

int control(std::vector<std::string> words) {
   std::string socket;
   if (!words.empty() && words[0].find('/') != std::string::npos) {
      socket = words[0];
      words.erase(words.begin());
   } else if (const char* given = std::getenv("TARNSIM_CONTROL"); given && *given) {
      socket = given;
   } else {
      failUsage("control: no socket is given, as a path with a slash or in TARNSIM_CONTROL");
   }
   if (words.empty()) {
      failUsage("control: there is no command");
   }
   return static_cast<int>(runControlClient(socket, words));
}

/// Which options one may have meant, as the end of a message.
std::string nearOption(std::string_view argument) {
   Board::NearNames near(argument.substr(0, argument.find('=')));
   for (const char* name :
        {"--board", "--check", "--wire-log", "--control", "--help", "--version"}) {
      near.add(name);
   }
   return Board::didYouMean(near.nearest());
}

/// The value of an option, from "--name=VALUE" or from the argument behind "--name".
bool takeOption(std::string_view name, const std::vector<std::string>& arguments, std::size_t& at,
                std::string& value) {
   const std::string_view argument = arguments[at];
   if (!argument.starts_with(name)) {
      return false;
   }
   const std::string_view rest = argument.substr(name.size());
   if (rest.starts_with('=')) {
      value = rest.substr(1);
   } else if (!rest.empty()) {
      return false;
   } else if (++at == arguments.size()) {
      failUsage(fmt::format("{} needs a value", name));
   } else {
      value = arguments[at];
   }
   if (value.empty()) {
      failUsage(fmt::format("{} needs a value", name));
   }
   return true;
}

int run(const std::vector<std::string>& arguments, bool& clean) {
   if (!arguments.empty() && arguments[0] == "control") {
      return control({arguments.begin() + 1, arguments.end()});
   }
   SessionOptions options;
   bool check = false;
   std::size_t at = 0;
   for (; at < arguments.size(); ++at) {
      const std::string& argument = arguments[at];
      if (argument == "--") {
         ++at;
         break;
      }
      if (!argument.starts_with('-')) {
         break;
      }
      if (argument == "--help" || argument == "-h") {
         (void)std::fputs(usage, stdout);
         return 0;
      }
      if (argument == "--version") {
         (void)std::puts("tarnsim " TARNSIM_VERSION);
         return 0;
      }
      if (argument == "--check") {
         check = true;
      } else if (!takeOption("--board", arguments, at, options.board) &&
                 !takeOption("--wire-log", arguments, at, options.wireLog) &&
                 !takeOption("--control", arguments, at, options.control)) {
         failUsage(fmt::format("there is no option {}{}", argument, nearOption(argument)));
      }
   }
   options.command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(at), arguments.end());
   if (options.board.empty()) {
      failUsage("no board file is given");
   }
   if (check) {
      if (!options.command.empty()) {
         failUsage("--check runs no command");
      }
      (void)Board::simulatedBoardFromFile(options.board);
      return 0;
   }
   if (options.command.empty()) {
      failUsage("no command is given");
   }
   return Session(std::move(options)).run(clean);
}

} // namespace

int runCommandLine(int argc, char** argv, bool& clean) {
   clean = true;
   try {
      return run({argv + (argc > 0 ? 1 : 0), argv + argc}, clean);
   } catch (const Failure& failure) {
      (void)std::fprintf(stderr, "tarnsim: %s\n", failure.what());
      return static_cast<int>(failure.code());
   } catch (const std::exception& error) {
      (void)std::fprintf(stderr, "tarnsim: %s\n", error.what());
      return static_cast<int>(ExitCode::failure);
   }
}

} // namespace TarnSim
