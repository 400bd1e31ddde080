#pragma once

#include "platform/entity/AttributeId.h"
#include "platform/entity/Node.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Tells observers that an access of one device failed. The flag is sticky: the library only ever
/// sets it, on the first failure; whoever handles the failure clears it with errorIs(false).
class TARN_API TransportMethodError : public Platform::Node {
public:
   static constexpr Platform::AttributeId chipNameAttr{"chipName"};
   static constexpr Platform::AttributeId errorAttr{"error"};

   explicit TransportMethodError(const String& chipName);
   ~TransportMethodError() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The device this speaks for: the name of its TransportMethod.
   const String& chipName() const noexcept { return _chipName; }
   void chipNameIs(const String& chipName);

   bool error() const noexcept { return _error; }
   void errorIs(bool error);

private:
   String _chipName;
   bool _error = false;
};

} // namespace TarnRegFile
