#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "board/FileError.h"
#include "nimbo/CommandLine.h"
#include "nimbo/Daemon.h"
#include "nimbo/UsageError.h"
#include "platform/entity/MultiThreading.h"
#include "platform/trace/SyslogSink.h"
#include "platform/trace/Trace.h"

namespace {

using Nimbo::ExitCode;

/// What a daemon says unasked: when it starts and ends, and what fails.
constexpr const char* usualLevels = "nimbo/*=1,board/*=1";

int code(ExitCode exitCode) {
   return static_cast<int>(exitCode);
}

int fail(const std::exception& error, ExitCode exitCode) {
   std::fprintf(stderr, "nimbod: %s\n", error.what());
   return code(exitCode);
}

void traceAs(const Nimbo::Config& config) {
   if (config.log == Board::LogTarget::systemLog) {
      Platform::Trace::sinkIs(std::make_shared<Platform::Trace::SyslogSink>("nimbod"));
   }
   if (!config.traceLevels.empty()) {
      Platform::Trace::levelsAre(config.traceLevels);
   } else if (!std::getenv("TARN_TRACE")) {
      Platform::Trace::levelsAre(usualLevels);
   }
}

int serve(const Nimbo::ConfigSource& source) {
   Platform::multiThreadedIs();
   Platform::EventLoop loop;
   auto daemon = std::make_unique<Nimbo::Daemon>(loop, source);
   if (!daemon->run()) {
      // A thread may be in a bus that never answers, and could be waited for in vain.
      std::fflush(nullptr);
      std::_Exit(code(ExitCode::general));
   }
   return code(ExitCode::ok);
}

} // namespace

int main(int argc, char** argv) {
   Nimbo::Arguments arguments;
   if (const auto exitCode = Nimbo::parseCommandLine(argc, argv, arguments)) {
      return code(*exitCode);
   }
   try {
      const Nimbo::ConfigSource source(arguments);
      const Nimbo::Config config = source.read();
      if (arguments.check) {
         return code(ExitCode::ok);
      }
      traceAs(config);
      return serve(source);
   } catch (const Nimbo::UsageError& error) {
      return fail(error, ExitCode::usage);
   } catch (const std::exception& error) {
      return fail(error, ExitCode::general);
   }
}
