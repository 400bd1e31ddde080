#include "platform/trace/Sink.h"

namespace Platform::Trace {

Sink::~Sink() = default;

void Sink::flush() {}

} // namespace Platform::Trace
