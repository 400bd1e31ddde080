#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Node.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// One element of a RegList: an address and a copy of the register record there.
class TARN_API RegListElement : public Platform::Node {
public:
   static constexpr Platform::AttributeId recordAttr{"record"};

   RegListElement(std::uint32_t address, HardwareRegister record);
   ~RegListElement() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   std::uint32_t address() const noexcept { return _address; }
   const HardwareRegister& record() const noexcept { return _record; }
   void recordIs(const HardwareRegister& record);

private:
   const std::uint32_t _address;
   HardwareRegister _record;
};

/// The registers of a device in ascending order of address, as copies: later changes of the
/// register file do not reach them. Belongs to whoever asked for it. No operation throws for an
/// address that is not in the list.
class TARN_API RegList : public Platform::Node {
public:
   static constexpr Platform::AttributeId regAttr{"reg"};

   using Collection = std::map<std::uint32_t, Ptr<RegListElement>>;
   using iterator = Collection::const_iterator;

   RegList();
   ~RegList() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// Inserts an element, or overwrites the record of the one there in place. Publishes the
   /// change of `reg` at `address` when something differs.
   void regIs(std::uint32_t address, const HardwareRegister& record);

   /// A copy of the record under `address`, or the empty record.
   HardwareRegister reg(std::uint32_t address) const;

   /// A copy of the record under `address`, or nothing.
   std::optional<HardwareRegister> regGet(std::uint32_t address) const;

   /// Removes the element and returns its record; the empty record when there is none.
   HardwareRegister regDel(std::uint32_t address);

   /// Removes the element that `position` points at, and returns the position after it.
   iterator regDel(iterator position);

   /// Removes every element, from the lowest address to the highest. What an observer puts back
   /// meanwhile, at an address that was passed, stays.
   void regDelAll();

   /// The elements from the lowest address to the highest.
   const Collection& reg() const noexcept { return _reg; }
   iterator begin() const noexcept { return _reg.begin(); }
   iterator end() const noexcept { return _reg.end(); }
   std::size_t size() const noexcept { return _reg.size(); }

private:
   std::vector<std::uint32_t> _addresses() const;

   Collection _reg;
};

} // namespace TarnRegFile
