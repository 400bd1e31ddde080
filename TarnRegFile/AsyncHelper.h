#pragma once

#include <cstdint>

#include "platform/entity/Node.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/RegAccessResult.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Receives the outcome of every read and write of the TransportMethod that it is installed on:
/// from inside regRead() and regWrite() with a synchronous transport, later and on the event
/// loop's thread with an asynchronous one. Derive from it and install it with asyncHelperIs().
///
/// It may issue further accesses, remove itself and drop the last reference to the
/// TransportMethod. What it throws leaves the access that it was called from.
class TARN_API AsyncHelperBase : public Platform::Node {
public:
   AsyncHelperBase();
   ~AsyncHelperBase() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   // The two take the first virtual slots after the node's own, in this order.

   /// A read ended. `value` is 0xFFFFFFFF when a synchronous read failed.
   virtual void handleReadResult(const String& regName, RegAccessResult result,
                                 std::uint32_t value) = 0;

   /// A write ended.
   virtual void handleWriteResult(const String& regName, RegAccessResult result) = 0;
};

} // namespace TarnRegFile
