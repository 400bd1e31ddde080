#include "platform/hardware/SableCoreBase.h"

#include <utility>

#include <absl/container/flat_hash_map.h>

#include "platform/entity/TypeBuilder.h"

namespace Hardware {

namespace {

absl::string_view view(std::string_view text) noexcept {
   return {text.data(), text.size()};
}

} // namespace

struct SableCoreBase::Registers {
   std::vector<std::pair<String, CoreRegisterDescriptor>> inOrder;
   absl::flat_hash_map<String, std::size_t> places;
};

SableCoreBase::SableCoreBase(String name, Ptr<HardwareRegisterFile> registerFile,
                             Ptr<TransportDescriptorBase> transportDescriptor)
   : _name(std::move(name)), _registerFile(std::move(registerFile)),
     _transportDescriptor(std::move(transportDescriptor)),
     _registers(std::make_unique<Registers>()) {}

SableCoreBase::~SableCoreBase() {
   beingDestroyedIs();
}

const Platform::TypeData& SableCoreBase::staticType() {
   using Self = SableCoreBase;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::SableCoreBase", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::generation, &Self::generationIs>("generation")
         .attribute<&Self::registerFile>("registerFile")
         .attribute<&Self::transportDescriptor>("transportDescriptor")
         .collection<&Self::registerDescNames, &Self::_registerDesc>("registerDesc")
         .operation<&Self::registerDescIs>("registerDescIs", {"name", "descriptor"})
         .operation<&Self::registerDescDel>("registerDescDel", {"name"})
         .build();
   return type;
}

void SableCoreBase::generationIs(const Generation& generation) {
   store(_generation, generation, generationAttr);
}

const CoreRegisterDescriptor*
SableCoreBase::findRegisterDesc(std::string_view name) const noexcept {
   const auto found = _registers->places.find(view(name));
   return found == _registers->places.end() ? nullptr : &_registers->inOrder[found->second].second;
}

void SableCoreBase::registerDescIs(const String& name, const CoreRegisterDescriptor& descriptor) {
   auto& [inOrder, places] = *_registers;
   const auto [place, isNew] = places.try_emplace(name, inOrder.size());
   if (isNew) {
      inOrder.emplace_back(name, descriptor);
   } else {
      CoreRegisterDescriptor& present = inOrder[place->second].second;
      if (present == descriptor) {
         return;
      }
      present = descriptor;
   }
   publish(registerDescAttr, name);
}

void SableCoreBase::registerDescDel(const String& name) {
   auto& [inOrder, places] = *_registers;
   const auto found = places.find(name);
   if (found == places.end()) {
      return;
   }
   const std::size_t place = found->second;
   const String removed = std::move(inOrder[place].first); // `name` may be this one
   places.erase(found);
   inOrder.erase(inOrder.begin() + static_cast<std::ptrdiff_t>(place));
   for (std::size_t i = place; i < inOrder.size(); ++i) {
      places[inOrder[i].first] = i;
   }
   publish(registerDescAttr, removed);
}

std::size_t SableCoreBase::registerDescs() const noexcept {
   return _registers->inOrder.size();
}

std::vector<String> SableCoreBase::registerDescNames() const {
   std::vector<String> names;
   names.reserve(registerDescs());
   forEachRegisterDesc(
      [&names](const String& name, const CoreRegisterDescriptor&) { names.push_back(name); });
   return names;
}

void SableCoreBase::forEachRegisterDesc(const Visitor& visit) const {
   for (const auto& [name, descriptor] : _registers->inOrder) {
      visit(name, descriptor);
   }
}

CoreRegisterDescriptor SableCoreBase::_registerDesc(const String& name) const {
   const CoreRegisterDescriptor* descriptor = findRegisterDesc(name);
   return descriptor ? *descriptor : CoreRegisterDescriptor();
}

} // namespace Hardware
