#include "platform/trace/RotatingFileSink.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using Platform::Trace::Record;
using Platform::Trace::RotatingFileSink;
using testing::HasSubstr;
using testing::StartsWith;

class RotatingFileSinkTest : public testing::Test {
protected:
   RotatingFileSinkTest() {
      std::string name = (std::filesystem::temp_directory_path() / "trace.XXXXXX").string();
      directory = ::mkdtemp(name.data());
   }
   ~RotatingFileSinkTest() override { std::filesystem::remove_all(directory); }

   std::string path(const char* name) const { return (directory / name).string(); }

   std::string content(const char* name) const {
      std::ifstream stream(directory / name, std::ios::binary);
      return {std::istreambuf_iterator<char>(stream), {}};
   }

   static Record record(std::string_view text) {
      using namespace std::chrono;
      return {"s", "f", 1, text, sys_days(year(2024) / 5 / 31)};
   }

   static std::string lineOf(const std::string& text) {
      return "2024-05-31T00:00:00.000000Z 1 s f: " + text + "\n";
   }

   std::filesystem::path directory;
};

TEST_F(RotatingFileSinkTest, EachRecordIsInTheFileAsALineAtOnce) {
   RotatingFileSink sink(path("t.log"), 10000, 2);
   sink.write(record("a\nb"));
   EXPECT_EQ(content("t.log"), lineOf("a\\nb"));
   sink.write(record("c"));
   EXPECT_EQ(content("t.log"), lineOf("a\\nb") + lineOf("c"));
}

TEST_F(RotatingFileSinkTest, AppendsToAFileThatIsThere) {
   std::ofstream(path("t.log")) << "before\n";
   RotatingFileSink sink(path("t.log"), 10000, 2);
   sink.write(record("a"));
   EXPECT_EQ(content("t.log"), "before\n" + lineOf("a"));
}

TEST_F(RotatingFileSinkTest, FullFileIsRenamedAndTheOldestGoes) {
   const std::size_t oneLine = lineOf("0").size();
   RotatingFileSink sink(path("t.log"), oneLine, 2);
   for (const char* text : {"0", "1", "2", "3"}) {
      sink.write(record(text));
   }
   EXPECT_EQ(content("t.log"), lineOf("3"));
   EXPECT_EQ(content("t.1.log"), lineOf("2"));
   EXPECT_EQ(content("t.2.log"), lineOf("1"));
   EXPECT_FALSE(std::filesystem::exists(path("t.3.log")));
}

TEST_F(RotatingFileSinkTest, MakesTheDirectoriesItNeeds) {
   RotatingFileSink sink(path("a/b/t.log"), 10000, 1);
   sink.write(record("x"));
   EXPECT_EQ(content("a/b/t.log"), lineOf("x"));
}

TEST_F(RotatingFileSinkTest, FileThatCannotBeOpenedIsASystemErrorWithThePath) {
   std::ofstream(path("file")) << "x";
   try {
      const RotatingFileSink sink(path("file/t.log"), 10000, 1);
      FAIL() << "opened a file below a file";
   } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::not_a_directory) << error.what();
      EXPECT_THAT(error.what(), StartsWith("trace file " + path("file/t.log") + ": "));
   }
}

TEST_F(RotatingFileSinkTest, FiguresOutOfRangeAreRefusedAndNoFileIsMade) {
   EXPECT_THROW(RotatingFileSink(path("t.log"), 0, 1), std::invalid_argument);
   EXPECT_THROW(RotatingFileSink(path("t.log"), 100, 0), std::invalid_argument);
   EXPECT_THROW(RotatingFileSink(path("t.log"), 100, 1001), std::invalid_argument);
   EXPECT_FALSE(std::filesystem::exists(path("t.log")));
}

} // namespace
