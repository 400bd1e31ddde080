#include "platform/trace/StderrSink.h"

#include <spdlog/sinks/stdout_sinks.h>

#include "platform/trace/Line.h"
#include "platform/trace/private/SpdlogOutput.h"

namespace Platform::Trace {

struct StderrSink::Output {
   spdlog::sinks::stderr_sink_mt sink;
};

StderrSink::StderrSink() : _output(std::make_unique<Output>()) {
   formatIsPlain(_output->sink);
}

StderrSink::~StderrSink() = default;

void StderrSink::write(const Record& record) {
   writeLine(_output->sink, spdlog::level::info, line(record));
}

} // namespace Platform::Trace
