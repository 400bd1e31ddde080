#include "TarnRegFile/TransportMethodRegFile.h"

#include <gtest/gtest.h>

#include <sstream>

#include "platform/entity/Directory.h"
#include "platform/entity/Errors.h"
#include "platform/entity/Value.h"
#include "tests/support/Failure.h"

namespace {

using Hardware::hardwareRegisterFileFactory;
using Platform::Directory;
using Platform::TextRange;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::Ptr;
using TarnRegFile::TransportMethodRegFile;
using TestSupport::Failure;

const std::string prefix = "Value('TarnRegFile::TransportMethodRegFile'";

std::string written(const TransportMethodRegFile& regFile) {
   std::ostringstream out;
   out << regFile;
   return out.str();
}

/// What reading `text` throws; the range must then be what it was.
Failure readFailure(const std::string& text, const Directory* directory = nullptr) {
   TextRange range(text, directory);
   Failure failure([&] { TransportMethodRegFile{range}; });
   EXPECT_EQ(range.rest(), text);
   return failure;
}

TEST(TransportMethodRegFile, ADefaultOneHoldsAnEmptyPath) {
   const TransportMethodRegFile regFile;
   EXPECT_TRUE(regFile.containsCsvPath());
   EXPECT_FALSE(regFile.containsRegFileModel());
   EXPECT_EQ(regFile.csvPath(), "");
   EXPECT_EQ(regFile, TransportMethodRegFile(""));
}

TEST(TransportMethodRegFile, HoldsAPath) {
   const TransportMethodRegFile regFile("a.csv");
   EXPECT_TRUE(regFile.containsCsvPath());
   EXPECT_FALSE(regFile.containsRegFileModel());
   EXPECT_EQ(regFile.csvPath(), "a.csv");
   EXPECT_EQ(TransportMethodRegFile(std::string("a.csv")), regFile);
}

TEST(TransportMethodRegFile, HoldsAModelAlsoANullOne) {
   const auto model = hardwareRegisterFileFactory("m");
   const TransportMethodRegFile regFile(model);
   EXPECT_FALSE(regFile.containsCsvPath());
   EXPECT_TRUE(regFile.containsRegFileModel());
   EXPECT_EQ(regFile.regFileModel(), model);
   EXPECT_EQ(model->refCount(), 2u);
   const TransportMethodRegFile none{Ptr<HardwareRegisterFile>()};
   EXPECT_TRUE(none.containsRegFileModel());
   EXPECT_EQ(none.regFileModel(), nullptr);
}

TEST(TransportMethodRegFile, AskingForTheOtherAlternativeIsABadUnionAccess) {
   EXPECT_EQ(Failure([] { TransportMethodRegFile("a.csv").regFileModel(); }),
             Failure::range("bad union access: TransportMethodRegFile does not hold regFileModel"));
   EXPECT_EQ(Failure([] { TransportMethodRegFile(Ptr<HardwareRegisterFile>()).csvPath(); }),
             Failure::range("bad union access: TransportMethodRegFile does not hold csvPath"));
}

TEST(TransportMethodRegFile, IsEqualWithTheSameAlternativeAndValue) {
   const auto model = hardwareRegisterFileFactory("m");
   const auto sameName = hardwareRegisterFileFactory("m");
   const TransportMethodRegFile path("a");
   EXPECT_TRUE(path.isEq(path));
   EXPECT_TRUE(path.isEq(TransportMethodRegFile("a")));
   EXPECT_FALSE(path.isEq(TransportMethodRegFile("b")));
   EXPECT_TRUE(TransportMethodRegFile(model) == TransportMethodRegFile(model));
   EXPECT_TRUE(TransportMethodRegFile(model) != TransportMethodRegFile(sameName))
      << "models are equal by identity";
   EXPECT_FALSE(TransportMethodRegFile().isEq(TransportMethodRegFile(Ptr<HardwareRegisterFile>())));
}

TEST(TransportMethodRegFile, APathOrdersBeforeAModel) {
   const auto model = hardwareRegisterFileFactory("m");
   EXPECT_LT(TransportMethodRegFile("zzz"), TransportMethodRegFile(model));
   EXPECT_LT(TransportMethodRegFile("zzz"), TransportMethodRegFile(Ptr<HardwareRegisterFile>()));
   EXPECT_GT(TransportMethodRegFile(model), TransportMethodRegFile());
}

TEST(TransportMethodRegFile, PathsOrderAsText) {
   EXPECT_LT(TransportMethodRegFile(""), TransportMethodRegFile("a"));
   EXPECT_LT(TransportMethodRegFile("a"), TransportMethodRegFile("aa"));
   EXPECT_LT(TransportMethodRegFile("B"), TransportMethodRegFile("a"));
   EXPECT_EQ(TransportMethodRegFile("a") <=> TransportMethodRegFile("a"),
             std::strong_ordering::equal);
}

TEST(TransportMethodRegFile, ModelsOrderByIdentity) {
   const auto one = hardwareRegisterFileFactory("m");
   const auto two = hardwareRegisterFileFactory("m");
   const TransportMethodRegFile a(one);
   const TransportMethodRegFile b(two);
   EXPECT_EQ(a <=> TransportMethodRegFile(one), std::strong_ordering::equal);
   EXPECT_NE(a < b, b < a);
   EXPECT_EQ(a < b, one < two);
}

TEST(TransportMethodRegFile, IsWrittenWithItsKeyAndValue) {
   EXPECT_EQ(written(TransportMethodRegFile()), prefix + ", csvPath='')");
   EXPECT_EQ(written(TransportMethodRegFile("/etc/it's.csv")),
             prefix + ", csvPath='/etc/it\\'s.csv')");
   EXPECT_EQ(written(TransportMethodRegFile(hardwareRegisterFileFactory("m"))),
             prefix + ", regFileModel=Entity('Hardware::HardwareRegisterFile', 'm'))");
   EXPECT_EQ(written(TransportMethodRegFile(Ptr<HardwareRegisterFile>())),
             prefix + ", regFileModel=null)");
   EXPECT_EQ(TransportMethodRegFile("a").stringRep(), prefix + ", csvPath='a')");
}

TEST(TransportMethodRegFile, ReadsBackWhatItWrote) {
   using namespace std::string_literals;
   const auto model = hardwareRegisterFileFactory("it's = a, (model)");
   Directory directory;
   directory.add(model->name(), model);
   for (const TransportMethodRegFile& regFile :
        {TransportMethodRegFile(), TransportMethodRegFile("a=b, c='d') \\"),
         TransportMethodRegFile("\0\n\xff\x7f"s), TransportMethodRegFile(model),
         TransportMethodRegFile(Ptr<HardwareRegisterFile>())}) {
      const std::string text = written(regFile) + " rest=";
      TextRange range(text, &directory);
      EXPECT_EQ(TransportMethodRegFile(range), regFile) << text;
      EXPECT_EQ(range.rest(), " rest=");
   }
}

TEST(TransportMethodRegFile, TheShortFormIsTheDefault) {
   const std::string text = prefix + ") rest";
   TextRange range(text);
   EXPECT_EQ(TransportMethodRegFile(range), TransportMethodRegFile());
   EXPECT_EQ(range.rest(), " rest");
}

// Whatever follows the prefix, if it is no comma the value is the default and reading stops there.
TEST(TransportMethodRegFile, WithoutACommaBehindThePrefixReadingStopsThere) {
   for (const std::string rest : {"", "x", " , csvPath='a')"}) {
      const std::string text = prefix + rest;
      TextRange range(text);
      EXPECT_EQ(TransportMethodRegFile(range), TransportMethodRegFile());
      EXPECT_EQ(range.rest(), rest);
   }
}

TEST(TransportMethodRegFile, WithoutThePrefixItIsNoneOfThese) {
   for (const std::string text :
        {"", "Value(", "Value('TarnRegFile::TransportMethod')", " Value", "csvPath='a'"}) {
      EXPECT_EQ(readFailure(text).kind, "range error") << text;
   }
}

TEST(TransportMethodRegFile, ACommaNeedsABlankBehindIt) {
   EXPECT_EQ(readFailure(prefix + ",csvPath='a')").kind, "range error");
   EXPECT_EQ(readFailure(prefix + ",").kind, "range error");
}

TEST(TransportMethodRegFile, ACommaWithoutAnEqualsSignIsInvalid) {
   const Failure invalid = Failure::range("Invalid string rep for TransportMethodRegFile");
   EXPECT_EQ(readFailure(prefix + ", )"), invalid);
   EXPECT_EQ(readFailure(prefix + ", "), invalid);
   EXPECT_EQ(readFailure(prefix + ", csvPath"), invalid);
   EXPECT_EQ(readFailure(prefix + ", csvPath="), invalid) << "nothing behind it";
   EXPECT_EQ(readFailure(prefix + ", what="), invalid) << "before the key is looked at";
}

TEST(TransportMethodRegFile, AnyOtherKeyIsNamed) {
   for (const std::string key : {"path", "csvPat", "csvPathX", "CsvPath", " csvPath", "csvPath ",
                                 "", "regFilePtr", "x)', y"}) {
      EXPECT_EQ(readFailure(prefix + ", " + key + "='a')"),
                Failure::range(
                   "Invalid string rep for TransportMethodRegFile: unknown alternative " + key));
   }
}

TEST(TransportMethodRegFile, ABadValueIsTheFrameworksError) {
   for (const std::string rest :
        {", csvPath=a)", ", csvPath='a", ", csvPath= 'a')", ", csvPath='a'", ", csvPath='a',",
         ", csvPath='a' )", ", csvPath='a', regFileModel=null)", ", regFileModel='a')",
         ", regFileModel=nul)", ", regFileModel=null"}) {
      EXPECT_EQ(readFailure(prefix + rest).kind, "range error") << rest;
   }
}

TEST(TransportMethodRegFile, AModelIsFoundOnlyWhereItLives) {
   const std::string text =
      prefix + ", regFileModel=Entity('Hardware::HardwareRegisterFile', 'm'))";
   EXPECT_EQ(readFailure(text).kind, "range error") << "no directory";
   Directory directory;
   EXPECT_EQ(readFailure(text, &directory).kind, "range error") << "not in it";
   directory.add("m", hardwareRegisterFileFactory("m"));
   EXPECT_EQ(readFailure(text, &directory).kind, "range error") << "no longer alive";
}

TEST(TransportMethodRegFile, IsAValueOfTheFramework) {
   const auto value = Platform::Value::of(TransportMethodRegFile("a"));
   EXPECT_EQ(value.typeName(), "TarnRegFile::TransportMethodRegFile");
   EXPECT_EQ(value.toString(), prefix + ", csvPath='a')");
}

} // namespace
