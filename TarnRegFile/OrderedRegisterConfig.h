#pragma once

#include "TarnRegFile/OrderedRegisterTable.h"

namespace TarnRegFile::Sable {

class OrderedRegisterConfig;

/// Leaves an OrderedRegisterConfig that nobody else refers to any more to its control.
using OrderedRegisterConfigZeroReferencesNotifiee =
   TableZeroReferencesNotifiee<OrderedRegisterConfig>;

/// Sequences of register writes that clients ask for: each is to be carried out once, in its order.
/// Written by clients, in any process; carried out by the owner of the hardware.
class TARN_API OrderedRegisterConfig : public OrderedRegisterTable {
public:
   /// `name` is that of the table in the shared table service.
   explicit OrderedRegisterConfig(const String& name);
   ~OrderedRegisterConfig() override;

   /// A new entity.
   static Ptr<OrderedRegisterConfig> OrderedRegisterConfigIs(const String& name);

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

private:
   friend OrderedRegisterConfigZeroReferencesNotifiee;

   Platform::OwnedNotifiee<OrderedRegisterConfigZeroReferencesNotifiee> _zeroReferences{
      std::in_place};
};

/// A new entity.
TARN_API Ptr<OrderedRegisterConfig> orderedRegisterConfigFactory(const String& name);

} // namespace TarnRegFile::Sable
