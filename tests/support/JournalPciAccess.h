#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "platform/hardware/PciHwAccessImpl.h"

namespace TestSupport {

/// A handle on a mapped file that journals every access, does what the test wants, and then makes
/// it.
class JournalPciAccess : public Hardware::PciHwAccessImpl {
public:
   using PciHwAccessImpl::PciHwAccessImpl;

   std::uint32_t read32(std::uint32_t offset) const override {
      _note(fmt::format("read {:#x}", offset));
      return PciHwAccessImpl::read32(offset);
   }
   void write32(std::uint32_t offset, std::uint32_t value) override {
      _note(fmt::format("write {:#x} {:#x}", offset, value));
      PciHwAccessImpl::write32(offset, value);
   }
   std::uint32_t guardedRead32(std::uint32_t offset) const override {
      _note(fmt::format("guarded read {:#x}", offset));
      return PciHwAccessImpl::guardedRead32(offset);
   }
   void guardedWrite32(std::uint32_t offset, std::uint32_t value) override {
      _note(fmt::format("guarded write {:#x} {:#x}", offset, value));
      PciHwAccessImpl::guardedWrite32(offset, value);
   }

   mutable std::vector<std::string> journal;
   std::function<void()> onAccess;

private:
   void _note(std::string line) const {
      journal.push_back(std::move(line));
      if (onAccess) {
         onAccess();
      }
   }
};

} // namespace TestSupport
