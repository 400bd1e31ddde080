#include "platform/trace/Trace.h"

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/trace/CaptureScope.h"
#include "platform/trace/Sink.h"

namespace {

TARN_TRACE_SOURCE(traceSource, "test/trace");

struct Unformattable {
   int what;
};

struct Tracing {};

} // namespace

template <>
struct fmt::formatter<Unformattable> {
   constexpr auto parse(format_parse_context& context) { return context.begin(); }
   auto format(const Unformattable& value, format_context& context) const {
      if (value.what == 0) {
         throw std::runtime_error("no text for it");
      }
      if (value.what == 1) {
         throw 1;
      }
      return context.out();
   }
};

template <>
struct fmt::formatter<Tracing> {
   constexpr auto parse(format_parse_context& context) { return context.begin(); }
   auto format(const Tracing&, format_context& context) const {
      TARN_TRACE(traceSource, 1, "format", "inner");
      return fmt::format_to(context.out(), "outer");
   }
};

namespace {

using Platform::Trace::CaptureScope;
using Platform::Trace::CaptureSink;
using Platform::Trace::Record;
using Platform::Trace::Sink;
using Platform::Trace::sinkIs;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

using Entry = CaptureSink::Entry;

// Puts a sink in place for the length of a test.
class SinkScope {
public:
   explicit SinkScope(std::shared_ptr<Sink> sink) : _previous(sinkIs(std::move(sink))) {}
   ~SinkScope() { sinkIs(_previous); }
   SinkScope(const SinkScope&) = delete;
   SinkScope& operator=(const SinkScope&) = delete;

private:
   std::shared_ptr<Sink> _previous;
};

template <typename Write>
class WritingSink : public Sink {
public:
   explicit WritingSink(Write write) : _write(std::move(write)) {}
   void write(const Record& record) override { _write(record); }

private:
   Write _write;
};

template <typename Write>
std::shared_ptr<Sink> sinkNew(Write write) {
   return std::make_shared<WritingSink<Write>>(std::move(write));
}

TEST(Trace, RecordHasSourceFunctionLevelAndText) {
   const CaptureScope trace;
   TARN_TRACE(traceSource, 3, "tryPerformIO", "{} at {:#x}", "ctrl", 16);
   EXPECT_THAT(trace.records(),
               ElementsAre(Entry{"test/trace", "tryPerformIO", 3, "ctrl at 0x10"}));
}

TEST(Trace, TimeIsThatOfTheRecord) {
   std::chrono::system_clock::time_point time;
   const SinkScope scope(sinkNew([&](const Record& record) { time = record.time; }));
   const auto before = std::chrono::system_clock::now();
   TARN_TRACE(traceSource, 0, "f", "text");
   EXPECT_GE(time, before);
   EXPECT_LE(time, std::chrono::system_clock::now());
}

TEST(Trace, TextWithoutArgumentsIsStillAFormat) {
   const CaptureScope trace;
   TARN_TRACE(traceSource, 0, "f", "100% {{}}");
   EXPECT_THAT(trace.texts(), ElementsAre("100% {}"));
}

TEST(Trace, LevelsAboveTheThresholdAreNotEmitted) {
   const CaptureScope trace("test/trace=4");
   TARN_TRACE(traceSource, 4, "f", "four");
   TARN_TRACE(traceSource, 5, "f", "five");
   EXPECT_THAT(trace.texts(), ElementsAre("four"));
}

TEST(Trace, ArgumentsAreNotEvaluatedWhenDisabled) {
   const CaptureScope trace("test/trace=4");
   int evaluated = 0;
   TARN_TRACE(traceSource, 5, "f", "{}", ++evaluated);
   EXPECT_EQ(evaluated, 0);
   EXPECT_THAT(trace.records(), IsEmpty());
}

TEST(Trace, ArgumentsAreNotEvaluatedAtTheFirstUseOfASourceEither) {
   const CaptureScope trace("test/trace/fresh=4");
   Platform::Trace::Source fresh("test/trace/fresh");
   int evaluated = 0;
   TARN_TRACE(fresh, 5, "f", "{}", ++evaluated);
   EXPECT_EQ(evaluated, 0);
}

TEST(Trace, ArgumentsAreEvaluatedOnceWhenEnabled) {
   const CaptureScope trace;
   int evaluated = 0;
   TARN_TRACE(traceSource, 5, "f", "{}", ++evaluated);
   EXPECT_EQ(evaluated, 1);
   EXPECT_THAT(trace.texts(), ElementsAre("1"));
}

TEST(Trace, IsOneStatement) {
   const CaptureScope trace;
   // The braces are left out on purpose: the macro must not swallow the else.
   for (const bool first : {true, false})
      if (first)
         TARN_TRACE(traceSource, 0, "f", "first");
      else
         TARN_TRACE(traceSource, 0, "f", "second");
   EXPECT_THAT(trace.texts(), ElementsAre("first", "second"));
}

TEST(Trace, ErrnoIsTheSameAfterwards) {
   const CaptureScope trace("test/trace=4");
   errno = ENXIO;
   TARN_TRACE(traceSource, 5, "f", "disabled");
   EXPECT_EQ(errno, ENXIO);
   errno = ENXIO;
   TARN_TRACE(traceSource, 4, "f", "{}", errno = EPERM);
   EXPECT_EQ(errno, ENXIO);
   const SinkScope scope(sinkNew([](const Record&) { errno = EBADF; }));
   TARN_TRACE(traceSource, 4, "f", "enabled");
   EXPECT_EQ(errno, ENXIO);
}

TEST(Trace, LongTextsAndZeroBytesAreKept) {
   const CaptureScope trace;
   const std::string text = std::string(10000, 'x') + std::string("\0y", 2);
   TARN_TRACE(traceSource, 0, "f", "{}", text);
   EXPECT_THAT(trace.texts(), ElementsAre(text));
}

TEST(Trace, TextThatCannotBeFormattedIsReplacedByOneThatSaysSo) {
   const CaptureScope trace;
   TARN_TRACE(traceSource, 2, "f", "it is {}", Unformattable{0});
   EXPECT_THAT(trace.records(), ElementsAre(Entry{"test/trace", "f", 2,
                                                  "cannot format 'it is {}': no text for it"}));
}

TEST(Trace, FormatterThatThrowsSomethingElseLeavesTheFormat) {
   const CaptureScope trace;
   TARN_TRACE(traceSource, 2, "f", "it is {}", Unformattable{1});
   EXPECT_THAT(trace.texts(), ElementsAre("it is {}"));
}

TEST(Trace, BadWidthAtRunTimeDoesNotEscape) {
   const CaptureScope trace;
   TARN_TRACE(traceSource, 2, "f", "{:{}}", 1, -1);
   EXPECT_THAT(trace.texts(), ElementsAre("cannot format '{:{}}': negative width"));
}

TEST(Trace, ExceptionOfAnArgumentReachesTheCaller) {
   const CaptureScope trace;
   const auto argument = []() -> int { throw std::out_of_range("argument"); };
   errno = ENXIO;
   EXPECT_THROW(TARN_TRACE(traceSource, 2, "f", "{}", argument()), std::out_of_range);
   EXPECT_THAT(trace.records(), IsEmpty());
   EXPECT_EQ(errno, ENXIO);
}

TEST(Trace, FormatterMayTrace) {
   const CaptureScope trace;
   TARN_TRACE(traceSource, 0, "f", "{}", Tracing{});
   EXPECT_THAT(trace.texts(), ElementsAre("inner", "outer"));
}

TEST(Trace, RecordThatTheSinkThrowsAtGoesToStandardError) {
   const SinkScope scope(sinkNew([](const Record&) { throw std::runtime_error("no space left"); }));
   testing::internal::CaptureStderr();
   TARN_TRACE(traceSource, 0, "f", "a\nb");
   EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("Z 0 test/trace f: a\\nb\n"));
}

TEST(Trace, SinkMayThrowAnything) {
   const SinkScope scope(sinkNew([](const Record&) { throw 1; }));
   testing::internal::CaptureStderr();
   TARN_TRACE(traceSource, 0, "f", "text");
   EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("Z 0 test/trace f: text\n"));
}

TEST(Trace, SinkIsUsedAgainAfterItThrew) {
   std::vector<std::string> texts;
   const SinkScope scope(sinkNew([&](const Record& record) {
      if (record.text == "bad") {
         throw std::runtime_error("bad");
      }
      texts.emplace_back(record.text);
   }));
   testing::internal::CaptureStderr();
   TARN_TRACE(traceSource, 0, "f", "bad");
   TARN_TRACE(traceSource, 0, "f", "good");
   EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::Not(HasSubstr("good")));
   EXPECT_THAT(texts, ElementsAre("good"));
}

TEST(Trace, WhatTheSinkTracesIsDropped) {
   const CaptureScope levels; // only for the levels
   int written = 0;
   const SinkScope scope(sinkNew([&](const Record&) {
      ++written;
      TARN_TRACE(traceSource, 0, "write", "again");
   }));
   TARN_TRACE(traceSource, 0, "f", "text");
   TARN_TRACE(traceSource, 0, "f", "text");
   EXPECT_EQ(written, 2);
   EXPECT_THAT(levels.records(), IsEmpty());
}

TEST(Trace, WithoutASinkRecordsGoNowhere) {
   const SinkScope scope(nullptr);
   testing::internal::CaptureStderr();
   TARN_TRACE(traceSource, 0, "f", "text");
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Trace, SinkIsReturnsTheOneThatWasThere) {
   const auto first = std::make_shared<CaptureSink>();
   const auto second = std::make_shared<CaptureSink>();
   const SinkScope scope(first);
   EXPECT_EQ(sinkIs(second), first);
   TARN_TRACE(traceSource, 0, "f", "text");
   EXPECT_THAT(first->records(), IsEmpty());
   EXPECT_EQ(second->records().size(), 1U);
   EXPECT_EQ(sinkIs(nullptr), second);
   EXPECT_EQ(sinkIs(first), nullptr);
}

TEST(Trace, SinkThatReplacesItselfWhileWritingIsSafe) {
   const auto next = std::make_shared<CaptureSink>();
   const SinkScope scope(sinkNew([&](const Record&) { sinkIs(next); }));
   TARN_TRACE(traceSource, 0, "f", "one");
   TARN_TRACE(traceSource, 0, "f", "two");
   EXPECT_THAT(next->texts(), ElementsAre("two"));
}

TEST(Trace, EmitDoesNotAskForTheLevel) {
   const CaptureScope trace("*=off");
   Platform::Trace::emit(traceSource, 9, "f", "{}", 1);
   EXPECT_THAT(trace.records(), ElementsAre(Entry{"test/trace", "f", 9, "1"}));
}

} // namespace
