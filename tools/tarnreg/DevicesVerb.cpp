#include <algorithm>

#include <fmt/format.h>

#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

void listDevices(const Board::BoardFile& board, Report& report) {
   if (board.devices().empty()) {
      report.nothing(fmt::format("{} describes no devices", board.path()));
   }
   std::size_t nameWidth = 0;
   for (const Board::DeviceEntry& device : board.devices()) {
      nameWidth = std::max(nameWidth, shownName(device.name).size());
   }
   for (const Board::DeviceEntry& device : board.devices()) {
      report.row(fmt::format("{:<{}}  {}  {}", shownName(device.name), nameWidth,
                             printable(device.url.text()), printable(device.list)),
                 {{"name", jsonText(device.name)},
                  {"transport", jsonText(device.url.text())},
                  {"list", jsonText(device.list)}});
   }
}

} // namespace TarnReg
