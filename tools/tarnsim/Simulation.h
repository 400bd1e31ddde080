#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "board/SimulatedBoard.h"
#include "board/SimulatedI2cBuses.h"
#include "platform/hardware/SimulatedI2cBus.h"
#include "TarnRegFile/Utils.h"
#include "tools/tarnsim/BusNode.h"
#include "tools/tarnsim/PciDevice.h"
#include "tools/tarnsim/SimulatedDevice.h"

namespace TarnSim {

/// The board, simulated: all models, the buses that they sit on, and the files that the command is
/// to see.
class Simulation {
public:
   /// A file of the board. At most one of the pointers is set; with none the file holds `text`.
   struct File {
      std::string path;
      BusNode* node = nullptr;
      PciDevice* pci = nullptr;
      std::string text{};
   };

   explicit Simulation(const Board::SimulatedBoard& board);

   const std::vector<File>& files() const noexcept { return _files; }
   const std::vector<std::unique_ptr<SimulatedDevice>>& devices() const noexcept {
      return _devices;
   }

   /// The device named so, or null.
   SimulatedDevice* device(std::string_view name) const noexcept;

   /// How many transfers can go on at the same time.
   std::size_t buses() const noexcept { return _buses; }

   /// Has every transaction of the I2C buses written to `file`, a line each. With several I2C
   /// buses on the board each line begins with the bus, "i2c-3: ".
   void wireLogIs(TarnRegFile::Utils::UnixFdRes file);

private:
   void _addI2c(const Board::SimulatedBoard& board);
   void _addSpi(const Board::SimulatedBoard& board);
   void _addPci(const Board::SimulatedBoard& board);

   std::vector<std::unique_ptr<SimulatedDevice>> _devices;
   Board::SimulatedI2cBuses _i2cBuses;
   std::vector<std::unique_ptr<BusNode>> _nodes;
   std::vector<File> _files;
   std::size_t _buses = 0;
   TarnRegFile::Utils::UnixFdRes _wireLog{-1};
};

} // namespace TarnSim
