#include "tools/tarnreg/DevicePlace.h"

#include <cstdlib>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>

#include "board/FileError.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Printable.h"

namespace TarnReg {

namespace {

constexpr const char* boardVariable = "TARN_BOARD";
constexpr const char* defaultTransport = "mock:";

DevicePlace placeOnBoard(const Options& options) {
   if (!options.file.empty() || !options.transport.empty()) {
      throw Failure(ExitCode::usage, "--device goes without --file and --transport: the board file "
                                     "says both");
   }
   const Board::BoardFile board = boardFile(options);
   const Board::DeviceEntry* entry = board.find(options.device);
   if (!entry) {
      std::vector<std::string> known;
      for (const Board::DeviceEntry& device : board.devices()) {
         known.push_back(shownName(device.name));
      }
      throw Failure(ExitCode::unknownName,
                    fmt::format("{} has no device {}{}", board.path(), shownName(options.device),
                                known.empty()
                                   ? "; it has none"
                                   : fmt::format("; there is {}", fmt::join(known, ", "))));
   }
   return {entry->list, entry->url};
}

} // namespace

Board::BoardFile boardFile(const Options& options) {
   const char* fromEnvironment = std::getenv(boardVariable);
   const std::string path = !options.board.empty() ? options.board
                            : fromEnvironment      ? fromEnvironment
                                                   : "";
   if (path.empty()) {
      throw Failure(ExitCode::usage, "--board is needed: the board file");
   }
   try {
      return Board::BoardFile(path);
   } catch (const Board::FileError& error) {
      throw Failure(ExitCode::general, error.what());
   }
}

DevicePlace devicePlace(const Options& options) {
   if (!options.device.empty()) {
      return placeOnBoard(options);
   }
   if (options.file.empty()) {
      throw Failure(ExitCode::usage, "--file is needed: the register list of the device; or "
                                     "--device, of a board file");
   }
   try {
      return {options.file, Board::TransportUrl(options.transport.empty() ? defaultTransport
                                                                          : options.transport)};
   } catch (const std::invalid_argument& error) {
      throw Failure(ExitCode::usage, error.what());
   }
}

} // namespace TarnReg
