#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/entity/Export.h"
#include "platform/entity/Ptr.h"
#include "platform/hardware/HwAccessImpl.h"

namespace Hardware {

/// A PCI device's register space, mapped into the process: the file of one of its BARs
/// (/sys/bus/pci/devices/0000:03:00.0/resource0), or any ordinary file in its place. Its size()
/// is that of the file when it was mapped, which is the BAR's.
///
/// Each access is one naturally aligned 32-bit load or store, never split, merged or left out.
/// The handle does not look at ready(); whoever watches over the device sets it, and users ask it.
class TARN_PLATFORM_API PciHwAccessImpl : public HwAccessImpl {
public:
   /// Maps the file at `path` for reading and writing, shared with whoever else maps it, and is
   /// then ready().
   ///
   /// Throws std::system_error: with errno (system category) "Error opening PCI register space {}"
   /// and "Error mapping PCI register space {} of {} bytes"; ENODEV (generic) "PCI register space
   /// {} is not an ordinary file"; EINVAL (generic) "PCI register space {} of {} bytes has no room
   /// for a 32-bit register".
   PciHwAccessImpl(const Platform::String& name, const Platform::String& path);

   /// Unmaps.
   ~PciHwAccessImpl() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The file that is mapped.
   const Platform::String& path() const noexcept { return _path; }

   std::uint64_t size() const noexcept final { return _size; }

   // The accesses throw std::system_error (generic category): EINVAL "PCI register space {} of {}
   // bytes: offset {:#x} is not aligned to 4 bytes", ENXIO "... has no 32-bit register at offset
   // {:#x}", ENODEV "PCI register space {} is not mapped: no access at offset {:#x}".

   std::uint32_t read32(std::uint32_t offset) const override;
   void write32(std::uint32_t offset, std::uint32_t value) override;

   // The first of these installs the BusErrorGuard if its autoInstall() is on.

   std::uint32_t guardedRead32(std::uint32_t offset) const override;
   void guardedWrite32(std::uint32_t offset, std::uint32_t value) override;

   /// Gives the device up: not ready, and nothing mapped. May be called again. Nobody may be
   /// making an access meanwhile.
   void unmap();

private:
   volatile std::uint32_t* _word(std::uint32_t offset) const;
   [[noreturn]] void _refuse(std::uint32_t offset) const;
   void _release() noexcept;

   const Platform::String _path;
   std::byte* _base = nullptr;
   std::uint64_t _size = 0;
   std::uint64_t _wordsEnd = 0; // the size without an incomplete word at the end
};

/// A handle on the register space at `path`. Throws what its constructor throws.
TARN_PLATFORM_API Platform::Ptr<PciHwAccessImpl>
pciHwAccessImplFactory(const Platform::String& name, const Platform::String& path);

} // namespace Hardware
