// Mounts a table of registers as a writer, and does what standard input says: `put ADDRESS VALUE`
// and `del ADDRESS`, a line each, which it answers with `done`.

#include <cstdint>
#include <iostream>
#include <string>

#include "platform/entity/EventLoop.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/ShadowRegisterConfig.h"

int main(int argc, char** argv) {
   using namespace TarnRegFile::Sable;
   if (argc != 2) {
      std::cerr << "usage: table_writer TABLE\n";
      return 2;
   }
   Platform::EventLoop loop;
   Platform::Tables::TableService service(loop);
   const auto control = Platform::Tables::collectionControlFactory(
      service, {.role = Platform::Tables::TableRole::writer});
   const auto table = shadowRegisterConfigFactory(argv[1]);
   table->regMapControlIs(control);
   control->mount();
   std::cout << "mounted" << std::endl;
   std::string what;
   std::uint32_t address = 0;
   while (std::cin >> what >> address) {
      const CoreRegisterKey key(address);
      if (std::uint32_t value = 0; what == "put" && std::cin >> value) {
         table->regMapIs(CoreRegister(key, value));
      } else {
         table->regMapDel(key);
      }
      std::cout << "done" << std::endl;
   }
   control->unmount();
}
