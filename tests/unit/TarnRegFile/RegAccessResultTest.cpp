#include "TarnRegFile/RegAccessResult.h"

#include <gtest/gtest.h>

#include <sstream>

#include "platform/entity/Errors.h"
#include "platform/entity/Value.h"
#include "tests/support/Failure.h"

namespace {

using Platform::TextRange;
using TarnRegFile::RegAccessResult;
using TarnRegFile::RegAccessResultInstance;
using TarnRegFile::sequenceToValue;
using TestSupport::Failure;

struct Row {
   std::uint8_t value;
   RegAccessResult result;
   const char* name;
};
constexpr Row rows[] = {{0, RegAccessResult::Unknown, "Unknown"},
                        {1, RegAccessResult::Success, "Success"},
                        {2, RegAccessResult::Error, "Error"}};

TEST(RegAccessResult, IsStoredInEightBits) {
   EXPECT_EQ(sizeof(RegAccessResult), 1u);
}

TEST(RegAccessResult, HasItsNumbersAndNames) {
   for (const Row& row : rows) {
      EXPECT_EQ(static_cast<std::uint8_t>(row.result), row.value);
      EXPECT_EQ(stringValue(row.result), row.name);
      EXPECT_EQ(RegAccessResultInstance(std::uint32_t{row.value}), row.result);
      EXPECT_EQ(RegAccessResultInstance(std::string(row.name)), row.result);
      std::ostringstream out;
      out << row.result;
      EXPECT_EQ(out.str(), row.name);
   }
}

TEST(RegAccessResult, TheDefaultIsUnknown) {
   std::ostringstream out;
   out << RegAccessResult{};
   EXPECT_EQ(out.str(), "Unknown");
}

TEST(RegAccessResult, NoOtherNumberIsAnInstance) {
   for (const std::uint32_t value : {3u, 255u, 256u, 257u, 0xffffffffu}) {
      EXPECT_THROW(RegAccessResultInstance(value), Platform::RangeError) << value;
   }
}

TEST(RegAccessResult, NoOtherNameIsAnInstance) {
   for (const std::string name : {"", "success", "Success ", "1", "Suc"}) {
      EXPECT_THROW(RegAccessResultInstance(name), Platform::RangeError) << name;
   }
}

TEST(RegAccessResult, ANumberWithoutANameShowsItsTypeAndNumber) {
   EXPECT_EQ(stringValue(static_cast<RegAccessResult>(3)), "RegAccessResult(3)");
}

TEST(RegAccessResult, IsReadOffTheFrontOfARange) {
   for (const Row& row : rows) {
      const std::string text = std::string(row.name) + ", more";
      TextRange range(text);
      RegAccessResult result = RegAccessResult::Unknown;
      sequenceToValue(range, &result);
      EXPECT_EQ(result, row.result);
      EXPECT_EQ(range.rest(), ", more");
   }
}

TEST(RegAccessResult, ABadTextChangesNeitherTheRangeNorTheResult) {
   for (const char* text : {"", "Successful", "error", " Error", "2"}) {
      TextRange range(text);
      RegAccessResult result = RegAccessResult::Error;
      EXPECT_THROW(sequenceToValue(range, &result), Platform::RangeError) << text;
      EXPECT_EQ(range.rest(), text);
      EXPECT_EQ(result, RegAccessResult::Error);
   }
}

TEST(RegAccessResult, IsAnEnumOfTheFramework) {
   const auto value = Platform::Value::of(RegAccessResult::Error);
   EXPECT_EQ(value.typeName(), "TarnRegFile::RegAccessResult");
   EXPECT_EQ(value.toString(), "Error");
}

} // namespace
