// Has the owner of a core write registers in order, and asks how the core is, without touching the
// bus:
//
//    shadow_order switch-board.csv fpga
//
// The owner is tarn-shadowd.

#include <chrono>
#include <cstdio>
#include <exception>
#include <iostream>

#include "platform/entity/EventLoop.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/OrderedClient.h"
#include "TarnRegFile/RegisterFileHelper.h"

int main(int argc, char** argv) {
   using namespace TarnRegFile::Sable;
   if (argc != 3) {
      std::fprintf(stderr, "usage: shadow_order LIST CORE\n");
      return 2;
   }
   try {
      // The addresses of shadow registers are the numbers of the list: blocks of one.
      const auto list = TarnRegFile::regFileHelperFactory(argv[2]);
      list->init(argv[1], 1, nullptr);
      const auto registers = list->regFilePtr();
      Platform::EventLoop loop;
      Platform::Tables::TableService service(loop);

      OrderedClient fpga(loop, service, argv[2], registers);
      const auto id = fpga.submit({{"SCRATCH", 1}, {"SCRATCH", 2}}); // returns at once
      const auto outcome = fpga.wait(id, std::chrono::seconds(5));   // when it has ended
      std::cout << outcome.writes.size() << " of " << outcome.size << " writes were made\n";
      if (!outcome.isComplete()) {
         std::cout << "the core's last error: " << outcome.lastError << '\n';
      }

      CoreMonitor& core = fpga.monitor();
      std::cout << core.coreName() << ": " << core.summary() << '\n';
      const CoreState state = core.resync(std::chrono::seconds(5)); // reads all registers anew
      std::cout << "generation " << state.generation << ", read in " << state.syncMicros << " us\n";
   } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 1;
   }
}
