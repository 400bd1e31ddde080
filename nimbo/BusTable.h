#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "nimbo/AddressWord.h"
#include "nimbo/Bus.h"

namespace Nimbo {

/// The buses that the daemon serves from one reading of its configuration to the next. Never
/// changes: a new reading makes a new one, and transactions under way keep the one they began
/// with. Any thread.
class BusTable {
public:
   /// The buses in the order in which a status shows them.
   explicit BusTable(std::vector<std::shared_ptr<Bus>> buses);

   /// The bus for a request, or null. Of those that fit, the one that asks for more: for a PCI
   /// function and a controller, for a PCI function, for a controller, for neither.
   Bus* find(const AddressWord& where, std::uint32_t pciBdf) const noexcept;

   const std::vector<std::shared_ptr<Bus>>& buses() const noexcept { return _buses; }

private:
   static constexpr std::size_t numbers = 128;

   const std::vector<std::shared_ptr<Bus>> _buses;
   std::array<std::vector<Bus*>, numbers> _byNumber; // those that ask for more first
};

} // namespace Nimbo
