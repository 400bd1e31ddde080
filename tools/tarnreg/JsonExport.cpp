#include "tools/tarnreg/JsonExport.h"

#include "tools/tarnreg/Report.h"

namespace TarnReg {

std::string jsonOf(const RegisterSheet& sheet) {
   nlohmann::ordered_json document;
   document["schema"] = "tarnreg-registers/1";
   document["title"] = jsonText(sheet.title);
   document["addressUnitsPerRegister"] = sheet.addrBlockSize;
   document["registers"] = nlohmann::ordered_json::array();
   for (const TarnRegFile::HardwareRegister* record : sheet.registers) {
      nlohmann::ordered_json element = registerJson(*record);
      element["accessWidth"] = record->accessWidth;
      document["registers"].push_back(std::move(element));
   }
   // ASCII only, so that no name reaches a terminal as anything but itself.
   return document.dump(2, ' ', true) + '\n';
}

} // namespace TarnReg
