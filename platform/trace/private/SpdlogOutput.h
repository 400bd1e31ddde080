#pragma once

#include <memory>
#include <string_view>

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/sink.h>

namespace Platform::Trace {

/// How the sinks of the trace facility use those of spdlog: finished lines in, nothing added but
/// the end of the line. Internal; the only header that shows spdlog.
inline void formatIsPlain(spdlog::sinks::sink& sink) {
   sink.set_formatter(std::make_unique<spdlog::pattern_formatter>("%v"));
}

inline void writeLine(spdlog::sinks::sink& sink, spdlog::level::level_enum severity,
                      std::string_view line) {
   sink.log(spdlog::details::log_msg(spdlog::string_view_t(), severity,
                                     spdlog::string_view_t(line.data(), line.size())));
}

} // namespace Platform::Trace
