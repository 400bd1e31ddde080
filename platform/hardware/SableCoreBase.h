#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/hardware/CoreRegisterDescriptor.h"
#include "platform/hardware/Generation.h"
#include "platform/hardware/HardwareRegisterFile.h"
#include "platform/hardware/TransportDescriptorBase.h"

namespace Hardware {

/// The model of one hardware core: which registers it has, how it is reached, and in which
/// generation it is at the moment.
///
/// Whoever watches over the hardware owns the model and sets its generation: a new valid one when
/// the core has come (back), one that is not valid when it has gone. Those who use the core watch
/// that attribute.
///
/// The registers keep the order in which they were first set, which is the order of every
/// iteration: who fills the model decides it.
///
/// An entity, held through Ptr, used on its own thread.
class TARN_PLATFORM_API SableCoreBase : public Platform::Node {
public:
   static constexpr Platform::AttributeId generationAttr{"generation"};
   static constexpr Platform::AttributeId registerDescAttr{"registerDesc"};

   /// A core without registers, of the null generation. `registerFile` and `transportDescriptor`
   /// may be null; nobody can reach the core then.
   SableCoreBase(String name, Ptr<HardwareRegisterFile> registerFile,
                 Ptr<TransportDescriptorBase> transportDescriptor);
   ~SableCoreBase() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const String& name() const noexcept { return _name; }

   Generation generation() const noexcept { return _generation; }
   void generationIs(const Generation& generation);

   /// The list by which the core's transport finds the registers.
   const Ptr<HardwareRegisterFile>& registerFile() const noexcept { return _registerFile; }
   const Ptr<TransportDescriptorBase>& transportDescriptor() const noexcept {
      return _transportDescriptor;
   }

   // The registers, by name. A change is published with the name as its key.

   /// The descriptor of that name, or null. Valid until the registers change. Allocates nothing.
   const CoreRegisterDescriptor* findRegisterDesc(std::string_view name) const noexcept;

   /// Sets the descriptor of that name. A new name comes behind all others, a known one keeps its
   /// place.
   void registerDescIs(const String& name, const CoreRegisterDescriptor& descriptor);

   /// Removes the descriptor of that name; harmless when there is none. The others keep their
   /// order.
   void registerDescDel(const String& name);

   /// How many registers there are.
   std::size_t registerDescs() const noexcept;

   /// The names, in order.
   std::vector<String> registerDescNames() const;

   /// Calls `visit` for each register, in order. `visit` must not change the registers.
   using Visitor = std::function<void(const String& name, const CoreRegisterDescriptor&)>;
   void forEachRegisterDesc(const Visitor& visit) const;

private:
   struct Registers;

   CoreRegisterDescriptor _registerDesc(const String& name) const;

   const String _name;
   Generation _generation;
   const Ptr<HardwareRegisterFile> _registerFile;
   const Ptr<TransportDescriptorBase> _transportDescriptor;
   std::unique_ptr<Registers> _registers;
};

} // namespace Hardware
