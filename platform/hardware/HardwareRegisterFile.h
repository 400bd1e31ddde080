#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/hardware/HardwareRegister.h"

namespace Hardware {

using Platform::Ptr;

/// The register list of one device: an entity that holds register records by name and names by
/// address, and knows how many address units a register number takes.
///
/// The two maps are filled separately, so a model may hold several names for one address; the
/// address then names the one that was set last. Look-ups take string views and allocate nothing.
///
/// Held through Ptr. Used on its own thread, like any entity; look-ups alone may run on several
/// threads at once while nobody changes the model.
class TARN_PLATFORM_API HardwareRegisterFile : public Platform::Node {
public:
   static constexpr Platform::AttributeId addrBlockSizeAttr{"addrBlockSize"};
   static constexpr Platform::AttributeId nameToRegMapAttr{"nameToRegMap"};
   static constexpr Platform::AttributeId addrToNameMapAttr{"addrToNameMap"};

   explicit HardwareRegisterFile(String name);
   ~HardwareRegisterFile() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const String& name() const noexcept { return _name; }

   /// Address units per register number; 1 unless set.
   std::uint8_t addrBlockSize() const noexcept { return _addrBlockSize; }
   void addrBlockSizeIs(std::uint8_t addrBlockSize);

   /// Sets the record under `name`, replacing the one there. Publishes the change of
   /// `nameToRegMap` at `name` when the record differs.
   void nameToRegMapIs(const String& name, const HardwareRegister& record);

   /// Sets the name at `address`, replacing the one there. Publishes the change of
   /// `addrToNameMap` at `address` when the name differs.
   void addrToNameMapIs(std::uint32_t address, const String& name);

   /// A number that is another one after each change of a record under a name: whoever keeps what
   /// he has looked up sees by it whether to look again.
   std::uint64_t version() const noexcept { return _version; }

   /// Makes room for `count` registers.
   void reserve(std::size_t count);

   /// The record under `name`, or null. Valid until the model is changed.
   const HardwareRegister* findRegister(std::string_view name) const noexcept;

   /// The name at `address`, or null. Valid until the model is changed.
   const String* findName(std::uint32_t address) const noexcept;

   /// Number of names.
   std::size_t size() const noexcept;

   /// Calls `visit` for each name and record, in no particular order. `visit` must not change
   /// the model.
   using Visitor = std::function<void(const String& name, const HardwareRegister& record)>;
   void forEachRegister(const Visitor& visit) const;

   /// The names, sorted, and the addresses, ascending.
   std::vector<String> names() const;
   std::vector<std::uint32_t> addresses() const;

   /// A new model of the same name whose addresses count the same register numbers in blocks of
   /// `addrBlockSize`. The conversion is exact. Throws std::system_error with EINVAL (generic
   /// category) when an address is no whole number of the present blocks (with blocks of size 0
   /// no address is), and with EOVERFLOW when a converted address needs more than 32 bits.
   Ptr<HardwareRegisterFile> convertAddrBlockSize(std::uint8_t addrBlockSize) const;

private:
   struct Maps;

   HardwareRegister _registerAt(const String& name) const;
   String _nameAt(const std::uint32_t& address) const;
   std::uint32_t _convert(std::string_view name, std::uint32_t address,
                          std::uint8_t addrBlockSize) const;

   const String _name;
   std::uint8_t _addrBlockSize = 1;
   std::uint64_t _version = 0;
   std::unique_ptr<Maps> _maps;
};

/// A new, empty model.
TARN_PLATFORM_API Ptr<HardwareRegisterFile> hardwareRegisterFileFactory(const String& name);

} // namespace Hardware
