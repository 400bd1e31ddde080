#pragma once

#include "TarnRegFile/ShadowRegisterTable.h"

namespace TarnRegFile::Sable {

class ShadowRegisterConfig;

/// Leaves a ShadowRegisterConfig that nobody else refers to any more to its control.
using ShadowRegisterConfigZeroReferencesNotifiee =
   TableZeroReferencesNotifiee<ShadowRegisterConfig>;

/// What the registers of a core should hold. Written by clients, in any process; carried to the
/// hardware by the core's state machine.
class TARN_API ShadowRegisterConfig : public ShadowRegisterTable {
public:
   /// `name` is that of the table in the shared table service.
   explicit ShadowRegisterConfig(const String& name);
   ~ShadowRegisterConfig() override;

   /// A new entity.
   static Ptr<ShadowRegisterConfig> ShadowRegisterConfigIs(const String& name);

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

private:
   friend ShadowRegisterConfigZeroReferencesNotifiee;

   Platform::OwnedNotifiee<ShadowRegisterConfigZeroReferencesNotifiee> _zeroReferences{
      std::in_place};
};

/// A new entity.
TARN_API Ptr<ShadowRegisterConfig> shadowRegisterConfigFactory(const String& name);

} // namespace TarnRegFile::Sable
