#pragma once

#include <cstdint>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/hardware/HwAccess.h"

namespace Hardware {

/// A handle whose device is accessed in 32-bit words at byte offsets from 0 to size(). Words are
/// in the device's order, which is the host's: nothing is swapped.
///
/// Made, shared and used as HwAccess says. Accesses change nothing in the handle: threads may make
/// them side by side, as far as the device allows, while nobody changes the handle.
class TARN_PLATFORM_API HwAccessImpl : public HwAccess {
public:
   static constexpr Platform::AttributeId busErrorFlagAttr{"busErrorFlag"};

   explicit HwAccessImpl(const Platform::String& name);
   ~HwAccessImpl() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// Bytes that can be accessed; 0 when none can.
   virtual std::uint64_t size() const noexcept = 0;

   // Every access throws std::system_error, and touches nothing, when `offset` is no multiple of 4
   // or the word there is not inside of size().

   /// Reads a word. When the device has gone, the process gets SIGBUS.
   virtual std::uint32_t read32(std::uint32_t offset) const = 0;

   /// Writes a word. As read32().
   virtual void write32(std::uint32_t offset, std::uint32_t value) = 0;

   /// Reads a word under the BusErrorGuard. Throws SigbusException when the device has gone.
   virtual std::uint32_t guardedRead32(std::uint32_t offset) const = 0;

   /// Writes a word under the BusErrorGuard. As guardedRead32().
   virtual void guardedWrite32(std::uint32_t offset, std::uint32_t value) = 0;

   /// Set by a program that deals with SIGBUS itself: the transports made on this handle from then
   /// on use the plain accesses and do not install the BusErrorGuard. Clear at first.
   bool busErrorFlag() const noexcept { return _busErrorFlag; }
   void busErrorFlagIs(bool busErrorFlag);

private:
   bool _busErrorFlag = false;
};

} // namespace Hardware
