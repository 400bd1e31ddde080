#include "platform/trace/StderrSink.h"

#include <chrono>

#include <gtest/gtest.h>

namespace {

using Platform::Trace::StderrSink;

TEST(StderrSink, WritesOneEscapedLineARecordAtOnce) {
   using namespace std::chrono;
   StderrSink sink;
   testing::internal::CaptureStderr();
   sink.write({"s", "f", 4, "a\x1b[31m\nb %v {}", sys_days(year(2024) / 5 / 31)});
   sink.write({"s", "f", 0, "", sys_days(year(2024) / 5 / 31) + milliseconds(1)});
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             "2024-05-31T00:00:00.000000Z 4 s f: a\\x1b[31m\\nb %v {}\n"
             "2024-05-31T00:00:00.001000Z 0 s f: \n");
}

} // namespace
