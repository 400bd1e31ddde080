#pragma once

#include "TarnRegFile/PciTransportDescriptor.h"
#include "tests/contract/TransportAdapter.h"
#include "tests/support/JournalPciAccess.h"
#include "tests/support/RegisterSpace.h"

namespace Contract {

/// PCI, on a mapped file. A device that has gone is a file without content: accesses to it raise
/// SIGBUS.
class PciAdapter : public TransportAdapter {
public:
   PciAdapter() : TransportAdapter({.addressUnits = 4, .hasBlock = true}) {}

   Ptr<TransportMethod> open(const TransportMethodRegFile& registers) override {
      auto device = TarnRegFile::transportMethodFactory("device");
      device->fullInit(TarnRegFile::pciTransportDescriptorFactory(_access), registers);
      return device;
   }

   std::vector<std::string> journal() const override { return _access->journal; }

   std::uint32_t value(std::uint32_t number) const override { return _space.word(4 * number); }
   void valueIs(std::uint32_t number, std::uint32_t value) override {
      _space.wordIs(4 * number, value);
   }
   void goneIs(bool gone) override { _space.sizeIs(gone ? 0 : bytes); }

private:
   static constexpr std::size_t bytes = 4096;

   TestSupport::RegisterSpace _space{bytes};
   Ptr<TestSupport::JournalPciAccess> _access =
      Platform::make<TestSupport::JournalPciAccess>("device", _space.path());
};

} // namespace Contract
