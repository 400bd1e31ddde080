#include "platform/hardware/SableCoreBase.h"

#include <utility>

#include <absl/container/flat_hash_set.h>

#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/private/NameHash.h"

namespace Hardware {

namespace {

absl::string_view view(std::string_view text) noexcept {
   return {text.data(), text.size()};
}

} // namespace

// What a look-up by name costs is the cache lines that it needs. So the hash table has but the
// place of each register, small enough to stay in a near cache, and names stand once, in their
// order, in which cores are mostly read.
struct SableCoreBase::Registers {
   using InOrder = std::vector<std::pair<String, CoreRegisterDescriptor>>;
   using Place = std::uint32_t;

   /// Hash and equality of places by the names that are there, and of a name alone.
   struct PlaceHash {
      using is_transparent = void;
      std::size_t operator()(absl::string_view name) const noexcept {
         return hash({name.data(), name.size()});
      }
      std::size_t operator()(Place place) const noexcept { return hash((*inOrder)[place].first); }
      const InOrder* inOrder;
      NameHash hash = {};
   };
   struct PlaceEq {
      using is_transparent = void;
      bool operator()(Place place, absl::string_view name) const noexcept {
         return view((*inOrder)[place].first) == name;
      }
      bool operator()(Place a, Place b) const noexcept { return a == b; }
      const InOrder* inOrder;
   };

   Registers() : places(0, PlaceHash{&inOrder}, PlaceEq{&inOrder}) {}
   Registers(const Registers&) = delete;
   Registers& operator=(const Registers&) = delete;
   ~Registers() = default;

   /// The register of that name, or null.
   InOrder::value_type* find(std::string_view name) noexcept {
      const auto found = places.find(view(name));
      return found == places.end() ? nullptr : &inOrder[*found];
   }

   void add(const String& name, const CoreRegisterDescriptor& descriptor) {
      inOrder.emplace_back(name, descriptor);
      try {
         places.insert(static_cast<Place>(inOrder.size() - 1));
      } catch (...) {
         inOrder.pop_back();
         throw;
      }
   }

   /// Removes what find() gave. All behind it move up, so the places are found anew.
   void remove(const InOrder::value_type* found) {
      places.erase(places.begin(), places.end()); // which keeps the room for those that stay
      inOrder.erase(inOrder.begin() + (found - inOrder.data()));
      for (std::size_t i = 0; i < inOrder.size(); ++i) {
         places.insert(static_cast<Place>(i));
      }
   }

   InOrder inOrder;
   absl::flat_hash_set<Place, PlaceHash, PlaceEq> places;
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
   const auto* found = _registers->find(name);
   return found ? &found->second : nullptr;
}

void SableCoreBase::registerDescIs(const String& name, const CoreRegisterDescriptor& descriptor) {
   if (auto* const present = _registers->find(name)) {
      if (present->second == descriptor) {
         return;
      }
      present->second = descriptor;
   } else {
      _registers->add(name, descriptor);
   }
   publish(registerDescAttr, name);
}

void SableCoreBase::registerDescDel(const String& name) {
   const auto* const found = _registers->find(name);
   if (!found) {
      return;
   }
   const String removed = found->first; // `name` may be this one
   _registers->remove(found);
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
