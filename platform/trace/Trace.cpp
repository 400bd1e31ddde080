#include "platform/trace/Trace.h"

#include <exception>
#include <iterator>
#include <mutex>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "platform/entity/Fatal.h"
#include "platform/trace/Line.h"
#include "platform/trace/Sink.h"
#include "platform/trace/Sources.h"
#include "platform/trace/StderrSink.h"

namespace Platform::Trace {

namespace {

constinit Source ownSource{"platform/trace"};

// Never destroyed, as the sources' registry is not: static destructors trace too.
struct Output {
   std::mutex mutex;
   std::shared_ptr<Sink> sink = std::make_shared<StderrSink>();
};

Output& output() {
   static Output& theOutput = *new Output;
   return theOutput;
}

std::shared_ptr<Sink> currentSink() {
   Output& out = output();
   const std::lock_guard lock(out.mutex);
   return out.sink;
}

// A sink that comes to trace would otherwise call itself for ever, or wait for its own lock.
thread_local bool writing = false;

struct WritingScope {
   WritingScope() noexcept { writing = true; }
   ~WritingScope() { writing = false; }
   WritingScope(const WritingScope&) = delete;
   WritingScope& operator=(const WritingScope&) = delete;
};

// The last resort when a sink fails: nothing but the line and the system call.
void writeToStderr(const Record& record) noexcept {
   try {
      const std::string text = line(record) + '\n';
      [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
   } catch (...) {
      // Out of memory while reporting that a report failed: there is nobody left to tell.
   }
}

void write(const Record& record, bool flush) noexcept {
   if (writing) {
      return;
   }
   const WritingScope scope;
   try {
      if (const std::shared_ptr<Sink> sink = currentSink()) {
         sink->write(record);
         if (flush) {
            sink->flush();
         }
      }
   } catch (...) {
      writeToStderr(record);
   }
}

void write(std::string_view source, int level, std::string_view function, std::string_view text,
           bool flush = false) noexcept {
   write(Record{source, function, level, text, std::chrono::system_clock::now()}, flush);
}

// Thresholds do not apply: why the process died is never noise.
void reportFatal(std::string_view source, std::string_view function,
                 std::string_view text) noexcept {
   constexpr std::string_view what = "assertion failed: ";
   try {
      std::string whole(what);
      whole += text;
      write(source, 0, function, whole, true);
   } catch (...) {
      write(source, 0, function, text, true);
   }
}

[[gnu::constructor]] void load() {
   fatalReporterIs(reportFatal);
   ownSource.registered();
   for (const std::string& error : Sources::instance().environmentErrors()) {
      TARN_TRACE(ownSource, 0, "TARN_TRACE", "{}; the entry is ignored", error);
   }
}

} // namespace

void levelsAre(std::string_view spec) {
   Sources::instance().levelsAre(Levels(spec));
}

std::string levels() {
   return Sources::instance().levels();
}

std::vector<std::string> sourceNames() {
   return Sources::instance().names();
}

std::shared_ptr<Sink> sinkIs(std::shared_ptr<Sink> sink) noexcept {
   Output& out = output();
   const std::lock_guard lock(out.mutex);
   return std::exchange(out.sink, std::move(sink));
}

void vemit(const Source& source, int level, std::string_view function, fmt::string_view text,
           fmt::format_args args) noexcept {
   const ErrnoKeeper errnoKeeper;
   // Most texts fit, and then nothing is allocated.
   fmt::basic_memory_buffer<char, 512> buffer;
   const std::string_view format(text.data(), text.size());
   try {
      fmt::vformat_to(std::back_inserter(buffer), text, args);
      write(source.name(), level, function, {buffer.data(), buffer.size()});
   } catch (const std::exception& error) {
      try {
         write(source.name(), level, function,
               fmt::format("cannot format '{}': {}", format, error.what()));
      } catch (...) {
         write(source.name(), level, function, format);
      }
   } catch (...) {
      write(source.name(), level, function, format);
   }
}

} // namespace Platform::Trace
