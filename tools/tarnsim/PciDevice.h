#pragma once

#include <mutex>
#include <vector>

#include "board/SimulatedBoard.h"
#include "TarnRegFile/Utils.h"
#include "tools/tarnsim/SimulatedDevice.h"

namespace TarnSim {

/// A resource of a PCI function: an ordinary file, which the command maps. What the command does
/// with it happens between it and the kernel; nobody sees it. Losing the device truncates the
/// file: accesses to a mapping of it then are real bus errors.
class PciDevice : public SimulatedDevice {
public:
   explicit PciDevice(Board::PciSpec spec);

   std::string path() const;

   /// Takes over the empty file at path(), and fills it. Throws Failure.
   void fileIs(TarnRegFile::Utils::UnixFdRes file);

   std::string place() const override;
   std::optional<std::uint32_t> addressOf(std::string_view name) const override;
   std::uint32_t registerAt(std::uint32_t address) const override;
   void registerIs(std::uint32_t address, std::uint32_t value) override;
   bool lost() const override;
   void lostIs(bool lost) override;
   Hardware::FaultPlan* faults() override { return nullptr; }
   std::vector<std::string> journal() const override;
   void journalClear() override;

private:
   void _check(std::uint32_t address) const;

   const Board::PciSpec _spec;
   mutable std::mutex _mutex;
   TarnRegFile::Utils::UnixFdRes _file{-1};
   bool _lost = false;
   std::vector<char> _contents; // while it is lost, without the zeros at the end
};

} // namespace TarnSim
