#pragma once

#include <memory>
#include <vector>

#include "platform/trace/Sink.h"

namespace Platform::Trace {

/// Hands each record to several sinks, in order. If one throws the others still get the record,
/// and the first exception is passed on.
class TARN_PLATFORM_API TeeSink : public Sink {
public:
   /// Shares the ownership of `sinks`, none of which may be null (std::invalid_argument).
   explicit TeeSink(std::vector<std::shared_ptr<Sink>> sinks);
   ~TeeSink() override;

   void write(const Record& record) override;
   void flush() override;

private:
   const std::vector<std::shared_ptr<Sink>> _sinks;
};

} // namespace Platform::Trace
