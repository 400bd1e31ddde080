// Reads any bytes as a board file, in all the ways that programs do: its devices, what the shadow
// agent is told, and what is to be simulated. Each must be refused with the place of a mistake, or
// give what the programs can be started with.

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "agent/ConfigSource.h"
#include "agent/UsageError.h"
#include "board/BoardFile.h"
#include "board/FileError.h"
#include "board/SimulatedBoardParser.h"
#include "board/SimulatedI2cBuses.h"
#include "tests/fuzz/Check.h"

namespace {

constexpr const char* path = "/nonexistent/b.toml";

/// Does `read`; a refusal must be one line that begins with the file and goes on with the place.
template <typename Read>
void refusedOr(const Read& read) {
   try {
      read();
   } catch (const Board::FileError& error) {
      const std::string_view what = error.what();
      FUZZ_CHECK(what.starts_with(std::string(path) + ':'));
      FUZZ_CHECK(what.size() < 1000 && what.find('\n') == std::string_view::npos);
   }
}

void checkDevices(std::string_view text) {
   const Board::BoardFile board(text, path);
   const auto& devices = board.devices();
   FUZZ_CHECK(std::is_sorted(devices.begin(), devices.end(),
                             [](const auto& a, const auto& b) { return a.name < b.name; }));
   for (const Board::DeviceEntry& device : devices) {
      FUZZ_CHECK(board.find(device.name) == &device);
      FUZZ_CHECK(!device.list.empty());
      const Board::TransportUrl again(device.url.text());
      FUZZ_CHECK(again.where().index() == device.url.where().index());
   }
}

void checkAgent(std::string_view text, bool namesCore) {
   Agent::Arguments arguments;
   arguments.boardFile = path;
   if (namesCore) {
      arguments.cores = {"a"};
   }
   try {
      const Agent::Config config = Agent::configFrom(text, arguments);
      std::set<std::string> names;
      for (const Board::DeviceEntry& core : config.cores) {
         FUZZ_CHECK(names.insert(core.name).second);
      }
      FUZZ_CHECK(!names.empty());
      FUZZ_CHECK(!namesCore || names == std::set<std::string>{"a"});
      const Agent::Settings& settings = config.settings;
      FUZZ_CHECK(settings.checkInterval.count() >= 0 && settings.retryFirst.count() > 0);
      FUZZ_CHECK(settings.retryMost >= settings.retryFirst && settings.answerTimeout.count() > 0);
      FUZZ_CHECK(settings.keptOperations > 0);
   } catch (const Agent::UsageError& error) {
      FUZZ_CHECK(std::string_view(error.what()).size() < 1000);
   }
}

void checkSimulated(std::string_view text) {
   const Board::SimulatedBoard board = Board::simulatedBoardFromText(text, path);
   FUZZ_CHECK(!board.i2c.empty() || !board.spi.empty() || !board.pci.empty());
   std::set<std::string> names;
   const auto checkAll = [&](const auto& devices) {
      for (const Board::DeviceSpec& device : devices) {
         FUZZ_CHECK(!device.name.empty() && names.insert(device.name).second);
      }
   };
   checkAll(board.i2c);
   checkAll(board.spi);
   checkAll(board.pci);
   // What the file says in agreement with itself can be made.
   for (const auto& [device, bus] : Board::simulatedI2cBuses(board)) {
      FUZZ_CHECK(bus != nullptr);
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   const std::string_view text(reinterpret_cast<const char*>(data), size);
   refusedOr([text] { checkDevices(text); });
   refusedOr([text] { checkAgent(text, false); });
   refusedOr([text] { checkAgent(text, true); });
   refusedOr([text] { checkSimulated(text); });
   return 0;
}
