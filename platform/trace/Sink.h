#pragma once

#include "platform/entity/Export.h"
#include "platform/trace/Record.h"

namespace Platform::Trace {

/// Where trace records go. Installed with sinkIs (Trace.h), which shares its ownership.
///
/// Both operations may be called on any thread and on several at once, also while the sink is
/// being replaced. They may throw: the record then goes to standard error instead, and the code
/// that traced notices nothing. Records that a sink itself causes, on the thread that is writing,
/// are dropped.
class TARN_PLATFORM_API Sink {
public:
   Sink() = default;
   virtual ~Sink();

   Sink(const Sink&) = delete;
   Sink& operator=(const Sink&) = delete;

   virtual void write(const Record& record) = 0;

   /// Hands on whatever is still buffered; called when the process is about to abort.
   virtual void flush();
};

} // namespace Platform::Trace
