#include "platform/trace/CaptureScope.h"

#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/trace/Trace.h"

namespace {

using Platform::Trace::CaptureScope;
using Platform::Trace::levels;
using testing::ElementsAre;
using testing::IsEmpty;

TARN_TRACE_SOURCE(traceSource, "test/capture");

TEST(CaptureScope, UnlessToldOtherwiseCapturesEveryLevel) {
   const CaptureScope trace;
   TARN_TRACE(traceSource, 9, "f", "nine");
   EXPECT_THAT(trace.texts(), ElementsAre("nine"));
}

TEST(CaptureScope, CapturesTheLevelsAskedFor) {
   const CaptureScope trace("test/capture=2");
   TARN_TRACE(traceSource, 2, "f", "two");
   TARN_TRACE(traceSource, 3, "f", "three");
   EXPECT_THAT(trace.texts(), ElementsAre("two"));
}

TEST(CaptureScope, ClearBeginsAnew) {
   CaptureScope trace;
   TARN_TRACE(traceSource, 0, "f", "one");
   trace.clear();
   TARN_TRACE(traceSource, 0, "f", "two");
   EXPECT_THAT(trace.texts(), ElementsAre("two"));
}

TEST(CaptureScope, GivesSinkAndLevelsBackAtItsEnd) {
   const CaptureScope outer("test/capture=3,*x=off");
   {
      const CaptureScope inner("test/capture=7");
      TARN_TRACE(traceSource, 7, "f", "inner");
      EXPECT_THAT(inner.texts(), ElementsAre("inner"));
   }
   EXPECT_EQ(levels(), "test/capture=3,*x=off");
   TARN_TRACE(traceSource, 3, "f", "outer");
   TARN_TRACE(traceSource, 4, "f", "more");
   EXPECT_THAT(outer.texts(), ElementsAre("outer"));
}

TEST(CaptureScope, BadLevelsChangeNothing) {
   const CaptureScope outer("test/capture=3");
   EXPECT_THROW(CaptureScope("bad"), std::invalid_argument);
   EXPECT_EQ(levels(), "test/capture=3");
   TARN_TRACE(traceSource, 3, "f", "outer");
   EXPECT_THAT(outer.texts(), ElementsAre("outer"));
}

} // namespace
