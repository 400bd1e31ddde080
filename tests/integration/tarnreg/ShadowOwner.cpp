// Plays the owner of a core's hardware: has the tables CORE/config and CORE/status mounted, shows
// that the core is ready, and holds what is wished, until standard input ends. ADDRESS=VALUE are
// what the registers hold at first; an ADDRESS alone is that of a register that takes no wishes.

#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <set>
#include <string>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/FdWatch.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/ShadowRegisterConfig.h"
#include "TarnRegFile/ShadowRegisterStatus.h"
#include "tests/support/OwnerStandIn.h"

int main(int argc, char** argv) {
   using namespace TarnRegFile::Sable;
   using Platform::Tables::TableRole;
   if (argc < 2) {
      std::cerr << "usage: shadow_owner CORE [ADDRESS[=VALUE]...]\n";
      return 2;
   }
   const std::string core = argv[1];
   Platform::EventLoop loop;
   Platform::Tables::TableService service(loop);
   const auto configControl =
      Platform::Tables::collectionControlFactory(service, {.role = TableRole::reader});
   const auto statusControl =
      Platform::Tables::collectionControlFactory(service, {.role = TableRole::writer});
   const auto config = shadowRegisterConfigFactory(core + "/config");
   const auto status = shadowRegisterStatusFactory(core + "/status");
   config->regMapControlIs(configControl);
   status->regMapControlIs(statusControl);
   configControl->mount();
   statusControl->mount();
   std::set<CoreRegisterKey> stuck;
   for (int i = 2; i < argc; ++i) {
      const std::string word = argv[i];
      const auto equals = word.find('=');
      const CoreRegisterKey key(static_cast<std::uint32_t>(std::stoul(word, nullptr, 0)));
      if (equals == std::string::npos) {
         stuck.insert(key);
      } else {
         const auto value = std::stoul(word.substr(equals + 1), nullptr, 0);
         status->regMapIs(CoreRegister(key, static_cast<std::uint32_t>(value)));
      }
   }
   const auto hold = [&](const CoreRegister& wish) {
      if (!stuck.contains(wish.key()) && status->regMap().get(wish.key()) != wish) {
         status->regMapIs(wish);
      }
   };
   const auto wishes = Platform::subscribe(
      *config, ShadowRegisterConfig::regMapAttr, [&](const Platform::Change& change) {
         if (const auto wish = config->regMap().get(change.key.as<CoreRegisterKey>())) {
            hold(*wish);
         }
      });
   config->regMap().forEach(hold);
   const TestSupport::OwnerStandIn standIn(service, core);
   std::cout << "ready" << std::endl;
   bool ended = false;
   Platform::FdWatch input(loop, STDIN_FILENO, {.read = true}, [&](auto) {
      char byte = 0;
      ended = ::read(STDIN_FILENO, &byte, 1) <= 0;
   });
   while (!ended) {
      loop.runUntil([&] { return ended; }, std::chrono::hours(1));
   }
   configControl->unmount();
   statusControl->unmount();
}
