#include "platform/trace/CaptureSink.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Platform::Trace::CaptureSink;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(CaptureSink, KeepsRecordsInOrderWithTextsOfItsOwn) {
   CaptureSink sink;
   {
      const std::string text("text\n");
      sink.write({"s", "f", 1, text, {}});
      sink.write({"t", "g", 2, "other", {}});
   }
   EXPECT_THAT(sink.records(), ElementsAre(CaptureSink::Entry{"s", "f", 1, "text\n"},
                                           CaptureSink::Entry{"t", "g", 2, "other"}));
   EXPECT_THAT(sink.texts(), ElementsAre("text\n", "other"));
}

TEST(CaptureSink, ClearForgetsThem) {
   CaptureSink sink;
   sink.write({"s", "f", 1, "text", {}});
   sink.clear();
   EXPECT_THAT(sink.records(), IsEmpty());
   EXPECT_THAT(sink.texts(), IsEmpty());
}

TEST(CaptureSink, EntryIsShownEscapedOnOneLine) {
   std::ostringstream stream;
   stream << CaptureSink::Entry{"s", "f", 1, "a\nb"};
   EXPECT_EQ(stream.str(), "1 s f: a\\nb");
}

} // namespace
