#include "platform/trace/SyslogSink.h"

#include <spdlog/sinks/syslog_sink.h>
#include <syslog.h>

#include "platform/trace/Line.h"
#include "platform/trace/private/SpdlogOutput.h"

namespace Platform::Trace {

namespace {

spdlog::level::level_enum severity(int level) noexcept {
   constexpr int lastInfo = 3;
   if (level <= 0) {
      return spdlog::level::err;
   }
   return level <= lastInfo ? spdlog::level::info : spdlog::level::debug;
}

} // namespace

struct SyslogSink::Output {
   explicit Output(const std::string& ident) : sink(ident, LOG_PID, LOG_DAEMON, false) {}

   spdlog::sinks::syslog_sink_mt sink;
};

SyslogSink::SyslogSink(const std::string& ident) : _output(std::make_unique<Output>(ident)) {}

SyslogSink::~SyslogSink() = default;

void SyslogSink::write(const Record& record) {
   writeLine(_output->sink, severity(record.level), lineBody(record));
}

} // namespace Platform::Trace
