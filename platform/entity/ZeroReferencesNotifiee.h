#pragma once

#include "platform/entity/Node.h"
#include "platform/entity/Notifiee.h"

namespace Platform {

/// Told when the last outside reference to its node has gone. It may take a new reference and so
/// keep the node alive; the next time the last reference goes it is told again, unless it has
/// unsubscribed itself by then.
class TARN_PLATFORM_API ZeroReferencesNotifiee : public Notifiee {
public:
   /// Must not throw: the last reference may go in a destructor.
   virtual void onZeroReferences(Node& node) noexcept = 0;

protected:
   ZeroReferencesNotifiee() noexcept : Notifiee(Kind::zeroReferences) {}

private:
   void onChange(const Change&) final {}
};

} // namespace Platform
