// Reads and writes registers of the sample board by name.
//
//    read_and_write switch-board.csv
//
// Everything runs on the mock; another transport is another descriptor, and nothing else changes.

#include <cstdio>
#include <exception>

#include "TarnRegFile/TransportMethod.h"

int main(int argc, char** argv) {
   if (argc != 2) {
      std::fprintf(stderr, "usage: %s LIST\n", argv[0]);
      return 2;
   }
   try {
      auto board = TarnRegFile::transportMethodFactory("switch-board");
      board->init(TarnRegFile::mockTransportDescriptorFactory(), argv[1]);

      board->regWrite("FAN[0]_PWM", 128);
      std::printf("FAN[0]_PWM = %u\n", board->regRead("FAN[0]_PWM"));

      // An array of registers in one go: 16 words of the mailbox.
      TarnRegFile::Bytes mail(16 * 4, 0x5a);
      board->regWriteArray("MAILBOX[0]", mail);
      std::printf("MAILBOX[7] = 0x%x\n", board->regRead("MAILBOX[7]"));

      // A failed access does not throw unless asked to. The error flag tells it from a register
      // that holds 0xFFFFFFFF.
      const std::uint32_t value = board->regRead("NO_SUCH_REGISTER");
      std::printf("NO_SUCH_REGISTER = 0x%x, error flag %s\n", value,
                  board->errorNotifier()->error() ? "set" : "clear");
      board->errorNotifier()->errorIs(false);

      board->handleDeletion();
   } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 1;
   }
   return 0;
}
