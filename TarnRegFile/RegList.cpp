#include "TarnRegFile/RegList.h"

#include <utility>

#include "platform/entity/TypeBuilder.h"

namespace TarnRegFile {

RegListElement::RegListElement(std::uint32_t address, HardwareRegister record)
   : _address(address), _record(std::move(record)) {}

RegListElement::~RegListElement() {
   beingDestroyedIs();
}

const Platform::TypeData& RegListElement::staticType() {
   using Self = RegListElement;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::RegListElement", Node::staticType())
         .attribute<&Self::address>("address")
         .attribute<&Self::record, &Self::recordIs>("record")
         .build();
   return type;
}

void RegListElement::recordIs(const HardwareRegister& record) {
   store(_record, record, recordAttr);
}

RegList::RegList() = default;

RegList::~RegList() {
   beingDestroyedIs();
}

const Platform::TypeData& RegList::staticType() {
   using Self = RegList;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::RegList", Node::staticType())
         .collection<&Self::_addresses,
                     static_cast<HardwareRegister (Self::*)(std::uint32_t) const>(&Self::reg)>(
            "reg")
         .operation<&Self::regIs>("regIs", {"address", "record"})
         .operation<static_cast<HardwareRegister (Self::*)(std::uint32_t)>(&Self::regDel)>(
            "regDel", {"address"})
         .operation<&Self::regDelAll>("regDelAll")
         .build();
   return type;
}

void RegList::regIs(std::uint32_t address, const HardwareRegister& record) {
   const auto found = _reg.find(address);
   if (found == _reg.end()) {
      _reg.emplace(address, Platform::make<RegListElement>(address, record));
   } else if (found->second->record() == record) {
      return;
   } else {
      found->second->recordIs(record);
   }
   publish(regAttr, address);
}

HardwareRegister RegList::reg(std::uint32_t address) const {
   return regGet(address).value_or(HardwareRegister());
}

std::optional<HardwareRegister> RegList::regGet(std::uint32_t address) const {
   const auto found = _reg.find(address);
   if (found == _reg.end()) {
      return std::nullopt;
   }
   return found->second->record();
}

HardwareRegister RegList::regDel(std::uint32_t address) {
   const auto found = _reg.find(address);
   if (found == _reg.end()) {
      return HardwareRegister();
   }
   // Held, so that the record outlives whatever the observers do with the list.
   const Ptr<RegListElement> element = found->second;
   regDel(found);
   return element->record();
}

RegList::iterator RegList::regDel(iterator position) {
   const std::uint32_t address = position->first;
   _reg.erase(position);
   publish(regAttr, address);
   // Looked up afresh: an observer may have changed the list.
   return _reg.upper_bound(address);
}

void RegList::regDelAll() {
   // Upwards only: ends also when an observer puts back what was removed.
   for (iterator position = begin(); position != end();) {
      position = regDel(position);
   }
}

std::vector<std::uint32_t> RegList::_addresses() const {
   std::vector<std::uint32_t> addresses;
   addresses.reserve(_reg.size());
   for (const auto& [address, element] : _reg) {
      addresses.push_back(address);
   }
   return addresses;
}

} // namespace TarnRegFile
