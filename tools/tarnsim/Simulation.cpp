#include "tools/tarnsim/Simulation.h"

#include <unistd.h>

#include <set>
#include <utility>

#include <fmt/format.h>

#include "tools/tarnsim/I2cDevice.h"
#include "tools/tarnsim/I2cNode.h"
#include "tools/tarnsim/SpiDevice.h"
#include "tools/tarnsim/SpiNode.h"

namespace TarnSim {

Simulation::Simulation(const Board::SimulatedBoard& board) {
   _addI2c(board);
   _addSpi(board);
   _addPci(board);
}

void Simulation::_addI2c(const Board::SimulatedBoard& board) {
   _i2cBuses = Board::simulatedI2cBuses(board);
   std::set<std::string> seen;
   for (const Board::I2cSpec& spec : board.i2c) {
      const auto& bus = _i2cBuses.at(spec.bus);
      if (seen.insert(spec.bus).second) {
         ++_buses;
         auto node = std::make_unique<I2cNode>(bus);
         _files.push_back({.path = spec.bus, .node = node.get()});
         _nodes.push_back(std::move(node));
      }
      _devices.push_back(std::make_unique<I2cDevice>(spec, bus->device(spec.address)));
   }
}

void Simulation::_addSpi(const Board::SimulatedBoard& board) {
   std::map<unsigned, std::shared_ptr<BusQueue>> controllers;
   for (const Board::SpiSpec& spec : board.spi) {
      auto& controller = controllers[spec.controller];
      if (!controller) {
         controller = std::make_shared<BusQueue>();
         ++_buses;
      }
      auto device = std::make_unique<SpiDevice>(spec);
      auto node = std::make_unique<SpiNode>(*device, controller);
      _files.push_back({.path = spec.device, .node = node.get()});
      _nodes.push_back(std::move(node));
      _devices.push_back(std::move(device));
   }
}

void Simulation::_addPci(const Board::SimulatedBoard& board) {
   std::set<std::string> functions;
   for (const Board::PciSpec& spec : board.pci) {
      auto device = std::make_unique<PciDevice>(spec);
      _files.push_back({.path = device->path(), .pci = device.get()});
      if (functions.insert(spec.function).second && (spec.vendor != 0 || spec.device != 0)) {
         const std::string folder = "/sys/bus/pci/devices/" + spec.function;
         _files.push_back(
            {.path = folder + "/vendor", .text = fmt::format("0x{:04x}\n", spec.vendor)});
         _files.push_back(
            {.path = folder + "/device", .text = fmt::format("0x{:04x}\n", spec.device)});
      }
      _devices.push_back(std::move(device));
   }
}

SimulatedDevice* Simulation::device(std::string_view name) const noexcept {
   for (const auto& device : _devices) {
      if (device->name() == name) {
         return device.get();
      }
   }
   return nullptr;
}

void Simulation::wireLogIs(TarnRegFile::Utils::UnixFdRes file) {
   _wireLog = std::move(file);
   for (const auto& [path, bus] : _i2cBuses) {
      std::string front;
      if (_i2cBuses.size() > 1) {
         front = path.substr(path.rfind('/') + 1) + ": ";
      }
      bus->wireLogIs([this, front](std::string_view line) {
         // One write a line: lines of two buses do not mix, and a crash loses none.
         const std::string text = fmt::format("{}{}\n", front, line);
         if (::write(_wireLog.fd(), text.data(), text.size()) < 0) {
            // A full disk costs the log, not the simulation.
         }
      });
   }
}

} // namespace TarnSim
