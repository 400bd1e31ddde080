#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/trace/CaptureSink.h"

namespace Platform::Trace {

/// For tests: until the end of the scope all trace records go to a CaptureSink and the levels are
/// those asked for; then sink and levels are what they were.
///
///     CaptureScope trace("TarnRegFile/*=8");
///     transport.regRead("ctrl");
///     EXPECT_THAT(trace.texts(), ElementsAre("ctrl at 0x10 is 0x1"));
///
/// Scopes may be nested. Sink and levels are the process's: not for tests that run side by side
/// in one process.
class TARN_PLATFORM_API CaptureScope {
public:
   /// Throws std::invalid_argument for levels that levelsAre refuses; nothing is changed then.
   explicit CaptureScope(std::string_view levels = "*=9");
   ~CaptureScope();

   CaptureScope(const CaptureScope&) = delete;
   CaptureScope& operator=(const CaptureScope&) = delete;

   [[nodiscard]] std::vector<CaptureSink::Entry> records() const { return _sink->records(); }
   [[nodiscard]] std::vector<std::string> texts() const { return _sink->texts(); }
   void clear() { _sink->clear(); }

private:
   const std::shared_ptr<CaptureSink> _sink;
   const std::string _previousLevels;
   std::shared_ptr<Sink> _previousSink;
};

} // namespace Platform::Trace
