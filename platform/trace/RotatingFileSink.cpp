#include "platform/trace/RotatingFileSink.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include "platform/trace/Line.h"
#include "platform/trace/private/SpdlogOutput.h"

namespace Platform::Trace {

struct RotatingFileSink::Output {
   Output(const std::string& path, std::size_t maxBytes, std::size_t files)
      : sink(path, maxBytes, files) {}

   spdlog::sinks::rotating_file_sink_mt sink;
};

RotatingFileSink::RotatingFileSink(const std::string& path, std::size_t maxBytes, std::size_t files)
   : _output([&] {
        constexpr std::size_t mostFiles = 1000;
        if (maxBytes == 0 || files == 0 || files > mostFiles) {
           throw std::invalid_argument(
              fmt::format("trace file {}: size {} with {} old files: the size must be at least 1, "
                          "the files 1 to {}",
                          path, maxBytes, files, mostFiles));
        }
        errno = 0;
        try {
           return std::make_unique<Output>(path, maxBytes, files);
        } catch (const spdlog::spdlog_ex&) {
           throw std::system_error(errno != 0 ? errno : EIO, std::generic_category(),
                                   fmt::format("trace file {}", path));
        }
     }()) {
   formatIsPlain(_output->sink);
}

RotatingFileSink::~RotatingFileSink() = default;

void RotatingFileSink::write(const Record& record) {
   writeLine(_output->sink, spdlog::level::info, line(record));
   _output->sink.flush();
}

void RotatingFileSink::flush() {
   _output->sink.flush();
}

} // namespace Platform::Trace
