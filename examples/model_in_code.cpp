// Describes a small device in code, without a register list on disk, and walks its registers in
// order of address.
//
//    model_in_code

#include <cstdio>
#include <exception>

#include "TarnRegFile/TransportMethod.h"

namespace {

void add(TarnRegFile::HardwareRegisterFile& model, const char* name, std::uint32_t number,
         TarnRegFile::HardwareRegisterType type, std::uint32_t width) {
   TarnRegFile::HardwareRegister record;
   record.name = name;
   record.address = number;
   record.width = width;
   record.arraySize = 1;
   record.type = type;
   record.writable = type == TarnRegFile::HardwareRegisterType::control;
   model.nameToRegMapIs(record.name, record);
   model.addrToNameMapIs(record.address, record.name);
}

} // namespace

int main() {
   using TarnRegFile::HardwareRegisterType;
   try {
      // Addresses count register numbers; the transport re-scales them to its own block size.
      auto model = Hardware::hardwareRegisterFileFactory("power-cpld");
      add(*model, "RAIL_STATUS", 2, HardwareRegisterType::status, 8);
      add(*model, "RAIL_ENABLE", 1, HardwareRegisterType::control, 8);
      add(*model, "CPLD_ID", 0, HardwareRegisterType::id, 16);

      auto cpld = TarnRegFile::transportMethodFactory("power-cpld");
      cpld->fullInit(TarnRegFile::mockTransportDescriptorFactory(),
                     TarnRegFile::TransportMethodRegFile(model));
      cpld->regWrite("RAIL_ENABLE", 0x3f);

      const auto registers = cpld->regList();
      for (const auto& [address, element] : *registers) {
         const auto& name = element->record().name;
         std::printf("0x%02x %s = 0x%x\n", address, name.c_str(), cpld->regRead(name));
      }
      cpld->handleDeletion();
   } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 1;
   }
   return 0;
}
