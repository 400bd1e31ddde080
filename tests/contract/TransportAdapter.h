#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "TarnRegFile/TransportMethod.h"

namespace Contract {

using TarnRegFile::Ptr;
using TarnRegFile::TransportMethod;
using TarnRegFile::TransportMethodRegFile;

/// What a transport can do, and what the suite cannot ask for in general.
struct Traits {
   std::uint32_t addressUnits = 1; ///< address units per register number
   bool canRead = true;
   bool hasBlock = false;
   bool synchronous = true;       ///< results are those of the device, at once
   bool canFail = true;           ///< the device can be made to fail, and the transport tells
   bool everyAccessIsSeen = true; ///< the journal has each access, not only what it changed
};

/// One transport over a device of its own, for the contract suite. A new transport joins the suite
/// with one class derived from this and one line in the table of TransportContractTest.cpp.
///
/// Registers are spoken of by number. The suite uses numbers up to 31 and values up to 16 bits,
/// which every transport can carry.
class TransportAdapter {
public:
   explicit TransportAdapter(const Traits& its) : traits(its) {}
   virtual ~TransportAdapter() = default;
   TransportAdapter(const TransportAdapter&) = delete;
   TransportAdapter& operator=(const TransportAdapter&) = delete;

   /// A TransportMethod named "device", initialised over the register list. Called once or more.
   virtual Ptr<TransportMethod> open(const TransportMethodRegFile& registers) = 0;

   /// Lets accesses that are under way end.
   virtual void settle() {}

   /// What the device has seen so far, one line an access, in words of the transport's own.
   virtual std::vector<std::string> journal() const = 0;

   /// A register of the device, past the transport and the journal.
   virtual std::uint32_t value(std::uint32_t number) const = 0;
   virtual void valueIs(std::uint32_t number, std::uint32_t value) = 0;

   /// Takes the device away, or brings it back. With canFail only.
   virtual void goneIs(bool) {}

   const Traits traits;
};

struct Transport {
   const char* name;
   std::function<std::unique_ptr<TransportAdapter>()> make;

   friend std::ostream& operator<<(std::ostream& out, const Transport& transport) {
      return out << transport.name;
   }
};

} // namespace Contract
