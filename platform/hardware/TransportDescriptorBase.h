#pragma once

#include "platform/entity/Export.h"
#include "platform/entity/Node.h"

namespace Hardware {

/// Says how a piece of hardware is reached. The models only pass it on: what is in it is a matter
/// of those who make one and of those who use it. An entity, held through Ptr.
class TARN_PLATFORM_API TransportDescriptorBase : public Platform::Node {
public:
   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

protected:
   TransportDescriptorBase();
   ~TransportDescriptorBase() override;
};

} // namespace Hardware
