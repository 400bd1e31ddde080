#include "platform/trace/CaptureScope.h"

#include <utility>

#include "platform/trace/Trace.h"

namespace Platform::Trace {

CaptureScope::CaptureScope(std::string_view levels)
   : _sink(std::make_shared<CaptureSink>()), _previousLevels(Trace::levels()) {
   levelsAre(levels);
   _previousSink = sinkIs(_sink);
}

CaptureScope::~CaptureScope() {
   sinkIs(std::move(_previousSink));
   levelsAre(_previousLevels);
}

} // namespace Platform::Trace
