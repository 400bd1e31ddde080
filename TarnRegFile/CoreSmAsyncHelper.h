#pragma once

#include <cstdint>

#include "TarnRegFile/AsyncHelper.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/RegAccessResult.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

class CoreSmBase;

/// Takes the results of a core's transports to the core: those of its initial sync while it is not
/// ready, and the outcomes of ordinary reads and writes afterwards.
///
/// Made and kept by the core, which installs it on each transport that it makes. It holds its
/// core, and is let go by CoreSmBase::teardown(). On the core's thread.
class TARN_API CoreSmAsyncHelper : public AsyncHelperBase {
public:
   explicit CoreSmAsyncHelper(const Ptr<CoreSmBase>& parent);
   ~CoreSmAsyncHelper() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   /// The core whose results these are.
   Ptr<CoreSmBase> parent() noexcept { return _parent; }
   Ptr<const CoreSmBase> parent() const noexcept { return _parent; }

   /// A read ended. A result of the initial sync goes to the core's handleInitSyncResult(). Any
   /// other updates the shadow status if it is a success, and is told to doOnReadResult() if reads
   /// go to the hardware; those from the shadow the core tells of itself. Fatal without a parent.
   void handleReadResult(const String& regName, RegAccessResult result,
                         std::uint32_t value) override;

   /// A write ended: told to doOnWriteResult(), or to nobody while the core is not ready.
   void handleWriteResult(const String& regName, RegAccessResult result) override;

private:
   Ptr<const CoreSmBase> _constParent() const noexcept { return _parent; }

   const Ptr<CoreSmBase> _parent;
};

} // namespace TarnRegFile::Sable
