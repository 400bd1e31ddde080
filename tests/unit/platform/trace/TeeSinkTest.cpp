#include "platform/trace/TeeSink.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/trace/CaptureSink.h"

namespace {

using Platform::Trace::CaptureSink;
using Platform::Trace::Record;
using Platform::Trace::Sink;
using Platform::Trace::TeeSink;
using testing::ElementsAre;

class FailingSink : public Sink {
public:
   explicit FailingSink(std::string what) : _what(std::move(what)) {}
   void write(const Record&) override { throw std::runtime_error(_what); }
   void flush() override { throw std::runtime_error("flush " + _what); }

private:
   const std::string _what;
};

class FlushCounter : public Sink {
public:
   void write(const Record&) override {}
   void flush() override { ++flushed; }
   int flushed = 0;
};

std::string thrown(const auto& operation) {
   try {
      operation();
      return "";
   } catch (const std::runtime_error& error) {
      return error.what();
   }
}

TEST(TeeSink, HandsEachRecordToAllItsSinks) {
   const auto first = std::make_shared<CaptureSink>();
   const auto second = std::make_shared<CaptureSink>();
   TeeSink tee({first, second});
   tee.write({"s", "f", 1, "text", {}});
   EXPECT_THAT(first->texts(), ElementsAre("text"));
   EXPECT_THAT(second->texts(), ElementsAre("text"));
}

TEST(TeeSink, FailingSinkDoesNotKeepTheRecordFromTheOthersAndTheFirstFailureIsPassedOn) {
   const auto last = std::make_shared<CaptureSink>();
   TeeSink tee({std::make_shared<FailingSink>("one"), std::make_shared<FailingSink>("two"), last});
   EXPECT_EQ(thrown([&] { tee.write({"s", "f", 1, "text", {}}); }), "one");
   EXPECT_THAT(last->texts(), ElementsAre("text"));
}

TEST(TeeSink, FlushesAllItsSinks) {
   const auto counter = std::make_shared<FlushCounter>();
   TeeSink tee({std::make_shared<FailingSink>("one"), counter});
   EXPECT_EQ(thrown([&] { tee.flush(); }), "flush one");
   EXPECT_EQ(counter->flushed, 1);
}

TEST(TeeSink, RefusesANullSink) {
   EXPECT_THROW(TeeSink({nullptr}), std::invalid_argument);
}

} // namespace
