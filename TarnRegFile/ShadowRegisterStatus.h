#pragma once

#include "TarnRegFile/ShadowRegisterTable.h"

namespace TarnRegFile::Sable {

class ShadowRegisterStatus;

/// Leaves a ShadowRegisterStatus that nobody else refers to any more to its control.
using ShadowRegisterStatusZeroReferencesNotifiee =
   TableZeroReferencesNotifiee<ShadowRegisterStatus>;

/// What the registers of a core hold: the values last read from the hardware or written to it.
/// Written by the core's state machine; read by anybody.
class TARN_API ShadowRegisterStatus : public ShadowRegisterTable {
public:
   /// `name` is that of the table in the shared table service.
   explicit ShadowRegisterStatus(const String& name);
   ~ShadowRegisterStatus() override;

   /// A new entity.
   static Ptr<ShadowRegisterStatus> ShadowRegisterStatusIs(const String& name);

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

private:
   friend ShadowRegisterStatusZeroReferencesNotifiee;

   Platform::OwnedNotifiee<ShadowRegisterStatusZeroReferencesNotifiee> _zeroReferences{
      std::in_place};
};

/// A new entity.
TARN_API Ptr<ShadowRegisterStatus> shadowRegisterStatusFactory(const String& name);

} // namespace TarnRegFile::Sable
