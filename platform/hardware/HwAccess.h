#pragma once

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Types.h"

namespace Hardware {

/// A program's handle on one hardware device, whatever bus it sits on. The kinds add how it is
/// reached. Whoever configures the hardware makes it and shares it, through Ptr, with those who
/// use the device; it belongs to one thread, as every entity does.
class TARN_PLATFORM_API HwAccess : public Platform::Node {
public:
   static constexpr Platform::AttributeId nameAttr{"name"};
   static constexpr Platform::AttributeId readyAttr{"ready"};

   explicit HwAccess(const Platform::String& name);
   ~HwAccess() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The device's name, for logs and for the entities that are made for it.
   const Platform::String& name() const noexcept { return _name; }

   /// Whether the device can be accessed. A new handle is not ready.
   bool ready() const noexcept { return _ready; }

   /// Says that the device has come or gone; set by whoever watches over it.
   void readyIs(bool ready);

private:
   Platform::String _name;
   bool _ready = false;
};

} // namespace Hardware
