// Learns of every access's outcome through an async helper, and of failures through the error
// notifier, in the way that works on synchronous and asynchronous transports alike.
//
//    observe_results switch-board.csv

#include <cstdio>
#include <exception>

#include "platform/entity/CallbackNotifiee.h"
#include "TarnRegFile/TransportMethod.h"

namespace {

class PrintingHelper : public TarnRegFile::AsyncHelperBase {
public:
   void handleReadResult(const TarnRegFile::String& regName, TarnRegFile::RegAccessResult result,
                         std::uint32_t value) override {
      std::printf("read %s: %s, 0x%x\n", regName.c_str(), TarnRegFile::stringValue(result).c_str(),
                  value);
   }

   void handleWriteResult(const TarnRegFile::String& regName,
                          TarnRegFile::RegAccessResult result) override {
      std::printf("write %s: %s\n", regName.c_str(), TarnRegFile::stringValue(result).c_str());
   }
};

} // namespace

int main(int argc, char** argv) {
   if (argc != 2) {
      std::fprintf(stderr, "usage: %s LIST\n", argv[0]);
      return 2;
   }
   try {
      auto board = TarnRegFile::transportMethodFactory("switch-board");
      board->init(TarnRegFile::mockTransportDescriptorFactory(), argv[1]);
      board->asyncHelperIs(Platform::make<PrintingHelper>());

      // The flag is sticky: it is published once when it rises, and whoever handled the failure
      // clears it.
      const auto notifier = board->errorNotifier();
      const auto failures = Platform::subscribe(
         *notifier, TarnRegFile::TransportMethodError::errorAttr, [&](const Platform::Change&) {
            std::printf("%s: error is now %s\n", notifier->chipName().c_str(),
                        notifier->error() ? "set" : "clear");
         });

      board->regWrite("LED_SYSTEM", 2);
      board->regRead("LED_SYSTEM");
      board->regRead("NO_SUCH_REGISTER");
      notifier->errorIs(false);
      board->regRead("LED_SYSTEM");

      board->handleDeletion();
   } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 1;
   }
   return 0;
}
