#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "agent/CommandLine.h"
#include "agent/ConfigSource.h"
#include "agent/Daemon.h"
#include "agent/UsageError.h"
#include "board/FailureSink.h"
#include "platform/entity/MultiThreading.h"
#include "platform/trace/StderrSink.h"
#include "platform/trace/SyslogSink.h"
#include "platform/trace/Trace.h"

namespace {

using Agent::ExitCode;

/// What a daemon says unasked: when it starts and ends, and what fails.
constexpr const char* usualLevels = "agent/*=1,board/*=1,TarnRegFile/*=0,platform/*=0";

int code(ExitCode exitCode) {
   return static_cast<int>(exitCode);
}

int fail(const std::exception& error, ExitCode exitCode) {
   std::fprintf(stderr, "tarn-shadowd: %s\n", error.what());
   return code(exitCode);
}

/// Returns what knows why accesses failed.
std::shared_ptr<Board::FailureSink> traceAs(const Agent::Config& config) {
   std::shared_ptr<Platform::Trace::Sink> sink;
   if (config.log == Board::LogTarget::systemLog) {
      sink = std::make_shared<Platform::Trace::SyslogSink>("tarn-shadowd");
   } else {
      sink = std::make_shared<Platform::Trace::StderrSink>();
   }
   if (!config.traceLevels.empty()) {
      Platform::Trace::levelsAre(config.traceLevels);
   } else if (!std::getenv("TARN_TRACE")) {
      Platform::Trace::levelsAre(usualLevels);
   }
   auto failures = std::make_shared<Board::FailureSink>(sink);
   Platform::Trace::sinkIs(failures);
   return failures;
}

int serve(const Agent::Config& config) {
   Platform::multiThreadedIs();
   const std::shared_ptr<Board::FailureSink> failures = traceAs(config);
   Agent::Daemon daemon(
      config, [failures](const std::string& regName) { return failures->takeReason(regName); });
   daemon.run();
   return code(ExitCode::ok);
}

} // namespace

int main(int argc, char** argv) {
   Agent::Arguments arguments;
   if (const auto exitCode = Agent::parseCommandLine(argc, argv, arguments)) {
      return code(*exitCode);
   }
   try {
      const Agent::Config config = Agent::configFrom(arguments);
      return arguments.check ? code(ExitCode::ok) : serve(config);
   } catch (const Agent::UsageError& error) {
      return fail(error, ExitCode::usage);
   } catch (const Agent::OwnedError& error) {
      return fail(error, ExitCode::refused);
   } catch (const std::exception& error) {
      return fail(error, ExitCode::general);
   }
}
