#pragma once

#include <memory>
#include <string>

#include "platform/trace/Sink.h"

namespace Platform::Trace {

/// Sends each record to the system log as "SOURCE FUNCTION: TEXT", escaped as in Line.h, with the
/// process id, facility daemon. Level 0 has severity error, 1 to 3 info, 4 to 9 debug.
///
/// The C library has one identity per process: have one of these at a time.
class TARN_PLATFORM_API SyslogSink : public Sink {
public:
   /// `ident` is the name that the system log shows, usually the program's.
   explicit SyslogSink(const std::string& ident);
   ~SyslogSink() override;

   void write(const Record& record) override;

private:
   struct Output;
   const std::unique_ptr<Output> _output;
};

} // namespace Platform::Trace
