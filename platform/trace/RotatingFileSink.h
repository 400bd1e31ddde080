#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/trace/Sink.h"

namespace Platform::Trace {

/// Writes each record as one line (Line.h) to a file, at once, so that a process that is killed
/// leaves all it traced behind. When the file would grow beyond its size it is renamed and a new
/// one begun: "agent.log" becomes "agent.1.log", that "agent.2.log", and so on.
class TARN_PLATFORM_API RotatingFileSink : public Sink {
public:
   /// Appends to `path`, creating it and its directories if need be. `maxBytes` is the size of
   /// one file, `files` how many old ones are kept besides; both at least 1, `files` at most 1000.
   /// Throws std::invalid_argument for figures out of range, std::system_error, naming the path,
   /// when the file cannot be opened.
   RotatingFileSink(const std::string& path, std::size_t maxBytes, std::size_t files);
   ~RotatingFileSink() override;

   void write(const Record& record) override;
   void flush() override;

private:
   struct Output;
   const std::unique_ptr<Output> _output;
};

} // namespace Platform::Trace
