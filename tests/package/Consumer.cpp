// A program of somebody else's, built with what was installed: reads and writes a register of a
// list that it makes itself, and hears of a change.

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/EventLoop.h"
#include "platform/hardware/HardwareRegisterFile.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"

TARN_TRACE_SOURCE(traceSource, "consumer");

int main(int argc, char** argv) {
   if (argc != 2) {
      return 2;
   }
   const std::string list = argv[1];
   std::ofstream(list) << "number,name,type,writeable,width\n5,LED[0:3],led,true,8\n";

   Platform::EventLoop loop;
   const auto board = TarnRegFile::transportMethodFactory("board");
   board->init(TarnRegFile::mockTransportDescriptorFactory(), list.c_str());
   board->regWrite("LED[2]", 7);
   TARN_TRACE(traceSource, 1, "main", "LED[2] is {}", board->regRead("LED[2]"));

   const auto model = Hardware::hardwareRegisterFileFactory("model");
   unsigned changes = 0;
   const auto subscription =
      Platform::subscribe(*model, Hardware::HardwareRegisterFile::addrBlockSizeAttr,
                          [&changes](const Platform::Change&) { ++changes; });
   model->addrBlockSizeIs(4);
   bool isPosted = false;
   loop.post([&] {
      isPosted = true;
      loop.stop();
   });
   loop.run();

   if (board->regRead("LED[2]") != 7 || changes != 1 || !isPosted) {
      return 1;
   }
   std::puts("ok");
   return 0;
}
