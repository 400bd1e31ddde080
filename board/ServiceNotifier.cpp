#include "board/ServiceNotifier.h"

#include <cstdint>
#include <ctime>
#include <system_error>

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include "platform/trace/Trace.h"

namespace Board {

namespace {

TARN_TRACE_SOURCE(traceSource, "board/ServiceNotifier");

void tell(const char* state) noexcept {
   if (const int result = ::sd_notify(0, state); result < 0) {
      TARN_TRACE(traceSource, 0, "tell", "{}: {}", state, std::generic_category().message(-result));
   }
}

} // namespace

void ServiceNotifier::ready() const noexcept {
   tell("READY=1");
}

void ServiceNotifier::reloading() const noexcept {
   // The time tells this reload from the answer to an earlier one.
   timespec now{};
   ::clock_gettime(CLOCK_MONOTONIC, &now);
   constexpr std::int64_t microsPerSecond = 1'000'000;
   constexpr std::int64_t nanosPerMicro = 1000;
   const std::int64_t micros = now.tv_sec * microsPerSecond + now.tv_nsec / nanosPerMicro;
   try {
      tell(fmt::format("RELOADING=1\nMONOTONIC_USEC={}", micros).c_str());
   } catch (const std::exception& error) {
      TARN_TRACE(traceSource, 0, "reloading", "{}", error.what());
   }
}

void ServiceNotifier::stopping() const noexcept {
   tell("STOPPING=1");
}

std::optional<std::chrono::microseconds> ServiceNotifier::watchdogInterval() noexcept {
   std::uint64_t micros = 0;
   if (::sd_watchdog_enabled(0, &micros) <= 0 || micros == 0) {
      return std::nullopt;
   }
   return std::chrono::microseconds(micros);
}

void ServiceNotifier::alive() const noexcept {
   tell("WATCHDOG=1");
}

} // namespace Board
