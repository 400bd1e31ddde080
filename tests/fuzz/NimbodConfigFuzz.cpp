// Reads any bytes as the file that configures nimbod. It must be refused with the place of a
// mistake, or give a configuration that the daemon can be started with.

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

#include "board/FileError.h"
#include "nimbo/ConfigFile.h"
#include "nimbo/ConfigValues.h"
#include "tests/fuzz/Check.h"

namespace {

using namespace Nimbo;

constexpr const char* path = "/nonexistent/b.toml";

void check(const Config& config, bool simulate, const ConfigFile& file) {
   FUZZ_CHECK(!config.socketDirectory.empty());
   FUZZ_CHECK(socketFileFrom(config.socketFile) == config.socketFile);
   FUZZ_CHECK(config.socketMode <= 0777);
   FUZZ_CHECK(config.maxConnections >= 1 && config.maxConnections <= mostConnections);
   FUZZ_CHECK(config.stopTimeout.count() >= 0);
   FUZZ_CHECK(config.metrics.empty() ||
              Board::metricsAddressFrom(config.metrics) == config.metrics);
   FUZZ_CHECK(Board::traceLevelsFrom(config.traceLevels) == config.traceLevels);
   FUZZ_CHECK(config.buses.size() <= mostBuses);
   std::set<std::string> names;
   for (const BusConfig& bus : config.buses) {
      FUZZ_CHECK(!bus.name.empty() && names.insert(bus.name).second);
      FUZZ_CHECK(bus.number <= mostBusNumber);
      FUZZ_CHECK(!bus.controller || *bus.controller <= mostController);
      FUZZ_CHECK(!bus.pciBdf || *bus.pciBdf != 0);
      FUZZ_CHECK(!rivalOf(bus, config.buses));
      FUZZ_CHECK(bus.simulated || (!simulate && bus.device.starts_with('/')));
      FUZZ_CHECK(!bus.timeout || (bus.timeout->count() > 0 && bus.timeout->count() % 10 == 0));
      if (bus.simulated) {
         checkSimulated(bus.device, file.simulated());
      }
   }
}

void read(std::string_view text, bool simulate) {
   try {
      const ConfigFile file(text, path);
      Config config;
      simulate = file.readInto(config, simulate);
      check(config, simulate, file);
   } catch (const Board::FileError& error) {
      const std::string_view what = error.what();
      FUZZ_CHECK(what.starts_with(std::string(path) + ':'));
      FUZZ_CHECK(what.size() < 1000 && what.find('\n') == std::string_view::npos);
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   const std::string_view text(reinterpret_cast<const char*>(data), size);
   read(text, false);
   read(text, true);
   return 0;
}
