#pragma once

#include "TarnRegFile/OrderedRegisterTable.h"

namespace TarnRegFile::Sable {

class OrderedRegisterStatus;

/// Leaves an OrderedRegisterStatus that nobody else refers to any more to its control.
using OrderedRegisterStatusZeroReferencesNotifiee =
   TableZeroReferencesNotifiee<OrderedRegisterStatus>;

/// What has come of the sequences of register writes that were asked for. Written by the owner of
/// the hardware; read by anybody.
class TARN_API OrderedRegisterStatus : public OrderedRegisterTable {
public:
   /// `name` is that of the table in the shared table service.
   explicit OrderedRegisterStatus(const String& name);
   ~OrderedRegisterStatus() override;

   /// A new entity.
   static Ptr<OrderedRegisterStatus> OrderedRegisterStatusIs(const String& name);

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

private:
   friend OrderedRegisterStatusZeroReferencesNotifiee;

   Platform::OwnedNotifiee<OrderedRegisterStatusZeroReferencesNotifiee> _zeroReferences{
      std::in_place};
};

/// A new entity.
TARN_API Ptr<OrderedRegisterStatus> orderedRegisterStatusFactory(const String& name);

} // namespace TarnRegFile::Sable
