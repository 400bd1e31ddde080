// Reads registers of a core that another process owns, wishes one to be changed, and follows what
// the owner makes of it.
//
//    shadow_registers switch-board.csv fpga
//
// The owner is tarn-shadowd, or any program that keeps the core's shadow tables.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "platform/entity/EventLoop.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/ShadowClient.h"

int main(int argc, char** argv) {
   using TarnRegFile::Sable::ShadowClient;
   if (argc != 3) {
      std::fprintf(stderr, "usage: %s LIST CORE\n", argv[0]);
      return 2;
   }
   try {
      // The addresses of shadow registers are the numbers of the list: blocks of one.
      const auto list = TarnRegFile::regFileHelperFactory(argv[2]);
      list->init(argv[1], 1, nullptr);
      const auto registers = list->regFilePtr();
      Platform::EventLoop loop;
      Platform::Tables::TableService service(loop);

      ShadowClient fpga(loop, service, argv[2], registers);
      std::uint32_t told = 0;
      const auto following = fpga.follow("SCRATCH", [&told](const auto& name, auto value) {
         told = value.value_or(0);
         std::cout << name << " now " << (value ? std::to_string(*value) : "not known") << '\n';
      });
      const std::uint32_t id = fpga.read("FPGA_ID");
      std::cout << "FPGA_ID " << id << '\n';
      fpga.wishIs("SCRATCH", 5);                         // returns at once
      fpga.write("SCRATCH", 6, std::chrono::seconds(5)); // returns when it holds that
      std::cout << "SCRATCH wished " << fpga.wish("SCRATCH").value_or(0) << ", held "
                << fpga.read("SCRATCH") << '\n';
      loop.runUntil([&] { return told == 6; }, std::chrono::seconds(5)); // what is followed
      fpga.wishDel("SCRATCH"); // leaves the register as it is
   } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 1;
   }
}
