#pragma once

#include <memory>

#include "platform/trace/Sink.h"

namespace Platform::Trace {

/// Writes each record as one line (Line.h) to standard error, at once. The sink a process starts
/// with.
class TARN_PLATFORM_API StderrSink : public Sink {
public:
   StderrSink();
   ~StderrSink() override;

   void write(const Record& record) override;

private:
   struct Output;
   const std::unique_ptr<Output> _output;
};

} // namespace Platform::Trace
