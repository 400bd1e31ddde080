#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "tests/support/Failure.h"
#include "tests/support/TempDir.h"

namespace {

using Platform::Trace::CaptureScope;
using Platform::Trace::CaptureSink;
using TarnRegFile::HardwareRegister;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::HardwareRegisterType;
using TarnRegFile::Ptr;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::Failure;
using TestSupport::TempDir;

const std::string header = "number,name,type,writeable,width\n";

class RegisterFileParser : public testing::Test {
protected:
   /// Loads a file of exactly this content.
   Ptr<HardwareRegisterFile> load(const std::string& content, std::uint8_t addrBlockSize = 1) {
      const std::string path = _dir.write("list.csv", content);
      return parse(path, addrBlockSize);
   }

   /// Loads a file of the header and these lines.
   Ptr<HardwareRegisterFile> lines(const std::string& text, std::uint8_t addrBlockSize = 1) {
      return load(header + text, addrBlockSize);
   }

   static Ptr<HardwareRegisterFile> parse(const std::string& path, std::uint8_t addrBlockSize = 1) {
      return TarnRegFile::regFileHelperFactory("h")->parseCsv(path, addrBlockSize);
   }

   Failure failureOf(const std::string& text) {
      return Failure([&] { lines(text); });
   }

   Failure openFailureOf(const std::string& path) {
      return Failure([&] { parse(path); });
   }

   std::vector<std::string> traces(const std::string& text) {
      CaptureScope trace("TarnRegFile/RegisterFileHelper=8");
      lines(text);
      return trace.texts();
   }

   TempDir _dir;
};

HardwareRegister reg(const std::string& name, std::uint32_t address, std::uint32_t width,
                     std::uint32_t arraySize, HardwareRegisterType type, bool writable) {
   HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = width;
   record.arraySize = arraySize;
   record.type = type;
   record.writable = writable;
   return record;
}

std::string systemText(int code, const std::string& text) {
   return std::system_error(code, std::system_category(), text).what();
}

// --- The header

TEST_F(RegisterFileParser, AFileOfOnlyTheHeaderIsAnEmptyList) {
   EXPECT_EQ(lines("")->size(), 0u);
   EXPECT_EQ(load("number,name,type,writeable,width")->size(), 0u) << "without line end";
   EXPECT_EQ(load("number,name,type,writeable,width\r\n")->size(), 0u);
}

TEST_F(RegisterFileParser, WhateverFollowsOnTheHeaderLineIsIgnored) {
   EXPECT_EQ(load("number,name,type,writeable,width,comment\n1,A,led,true,8\n")->size(), 1u);
   EXPECT_EQ(load("number,name,type,writeable,widths and heights\n1,A,led,true,8\n")->size(), 1u);
   EXPECT_EQ(load("number,name,type,writeable,width,[1:0]\n")->size(), 0u);
}

TEST_F(RegisterFileParser, AnyOtherFirstLineIsAWrongHeader) {
   const Failure wrong = Failure::generic(EINVAL, "Wrong CSV header");
   for (const char* content :
        {"", "\n", "number,name,type,writeable,widt", "number,name,type,writeable,widt\nh\n",
         "Number,name,type,writeable,width\n", " number,name,type,writeable,width\n",
         "\nnumber,name,type,writeable,width\n", "number;name;type;writeable;width\n",
         "\xef\xbb\xbfnumber,name,type,writeable,width\n", "number,name,type,writable,width,\n",
         "1,A,led,true,8\n", "\r\nnumber,name,type,writeable,width\r\n"}) {
      EXPECT_EQ(Failure([&] { load(content); }), wrong) << content;
   }
}

TEST_F(RegisterFileParser, ANulByteInTheHeaderMakesItWrong) {
   std::string content = header;
   content[6] = '\0';
   EXPECT_EQ(Failure([&] { load(content); }), Failure::generic(EINVAL, "Wrong CSV header"));
}

TEST_F(RegisterFileParser, TheWrongHeaderIsFoundBeforeAnyBadLine) {
   EXPECT_EQ(Failure([&] { load("x\ny,z\n"); }), Failure::generic(EINVAL, "Wrong CSV header"));
}

// --- Opening

TEST_F(RegisterFileParser, AFileThatIsNotThereRaisesTheErrnoAndThePath) {
   const std::string path = _dir.path("none.csv");
   EXPECT_EQ(openFailureOf(path), Failure::system(ENOENT, "Error opening CSV file " + path));
}

TEST_F(RegisterFileParser, EveryReasonNotToOpenIsToldByItsErrno) {
   const std::string file = _dir.write("file", "");
   const std::string loop = _dir.path("loop");
   std::filesystem::create_symlink(loop, loop);
   const std::string dangling = _dir.path("dangling");
   std::filesystem::create_symlink("nowhere", dangling);
   const std::string longName = _dir.path(std::string(300, 'x'));
   const std::pair<std::string, int> cases[] = {
      {file + "/below", ENOTDIR}, {loop, ELOOP}, {dangling, ENOENT}, {longName, ENAMETOOLONG}};
   for (const auto& [path, code] : cases) {
      errno = 0;
      EXPECT_EQ(openFailureOf(path), Failure::system(code, "Error opening CSV file " + path));
   }
}

TEST_F(RegisterFileParser, AnUnreadableFileRaisesEacces) {
   const std::string path = _dir.write("secret.csv", header);
   ASSERT_EQ(::chmod(path.c_str(), 0), 0);
   ASSERT_EQ(::chmod(_dir.path().c_str(), 0755), 0);
   const Failure expected = Failure::system(EACCES, "Error opening CSV file " + path);
   if (::geteuid() != 0) {
      EXPECT_EQ(openFailureOf(path), expected);
      return;
   }
   // Permissions mean nothing to the superuser: a child without its rights tries.
   const pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      constexpr uid_t nobody = 65534;
      if (::setgid(nobody) != 0 || ::setuid(nobody) != 0) {
         ::_exit(2);
      }
      ::_exit(openFailureOf(path) == expected ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFEXITED(status));
   EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(RegisterFileParser, ADirectoryIsRefusedAsSuch) {
   EXPECT_EQ(openFailureOf(_dir.path()).text,
             systemText(EISDIR, "Error opening CSV file " + _dir.path()));
   EXPECT_EQ(openFailureOf(_dir.path()).code, EISDIR);
}

TEST_F(RegisterFileParser, ADeviceNodeIsRefusedAndNotReadWithoutEnd) {
   for (const std::string path : {"/dev/zero", "/dev/null"}) {
      EXPECT_EQ(openFailureOf(path).text, systemText(EINVAL, "Error opening CSV file " + path));
   }
}

TEST_F(RegisterFileParser, APipeIsReadToItsEnd) {
   const std::string path = _dir.path("pipe");
   ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
   std::thread writer(
      [&] { std::ofstream(path) << header << "1,A[0:3],led,true,8\n9,B,led,true,8"; });
   const auto model = parse(path);
   writer.join();
   EXPECT_THAT(model->names(), ElementsAre("A[0]", "A[1]", "A[2]", "A[3]", "B"));
}

TEST_F(RegisterFileParser, ASymbolicLinkIsFollowed) {
   _dir.write("real.csv", header + "1,A,led,true,8\n");
   std::filesystem::create_symlink("real.csv", _dir.path("link.csv"));
   EXPECT_EQ(parse(_dir.path("link.csv"))->name(), _dir.path("link.csv"));
}

TEST_F(RegisterFileParser, LeavesNoDescriptorOpen) {
   const auto count = [] {
      return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
   };
   const auto before = count();
   lines("1,A,led,true,8\n");
   failureOf("x\n");
   EXPECT_THROW(load("bad"), std::system_error);
   EXPECT_EQ(count(), before);
}

// --- Records

TEST_F(RegisterFileParser, TheModelIsNamedAfterThePathAndDoesNotRecordTheBlockSize) {
   const auto model = lines("1,A,led,true,8\n", 4);
   EXPECT_EQ(model->name(), _dir.path("list.csv"));
   EXPECT_EQ(model->addrBlockSize(), 1);
}

TEST_F(RegisterFileParser, ALineBecomesARecord) {
   const auto model = lines("3,CTRL,control,true,32\n5,STAT,status,false,7\n", 4);
   EXPECT_EQ(*model->findRegister("CTRL"),
             reg("CTRL", 12, 32, 1, HardwareRegisterType::control, true));
   EXPECT_EQ(*model->findRegister("STAT"),
             reg("STAT", 20, 7, 1, HardwareRegisterType::status, false));
   EXPECT_EQ(model->size(), 2u);
   EXPECT_EQ(*model->findName(12), "CTRL");
   EXPECT_EQ(*model->findName(20), "STAT");
   EXPECT_THAT(model->addresses(), ElementsAre(12u, 20u));
   EXPECT_EQ(model->findRegister("CTRL")->accessWidth, 32u);
}

TEST_F(RegisterFileParser, WithBlocksOfSizeZeroEveryAddressIsZero) {
   const auto model = lines("3,A,led,true,8\n5,B,led,true,8\n", 0);
   EXPECT_EQ(model->findRegister("A")->address, 0u);
   EXPECT_EQ(model->findRegister("B")->address, 0u);
   EXPECT_EQ(*model->findName(0), "B");
}

TEST_F(RegisterFileParser, AddressesWrapAtThirtyTwoBits) {
   const auto model = lines("1073741824,A,led,true,8\n1073741825,B,led,true,8\n"
                            "2147483647,C,led,true,8\n",
                            4);
   EXPECT_EQ(model->findRegister("A")->address, 0u);
   EXPECT_EQ(model->findRegister("B")->address, 4u);
   EXPECT_EQ(model->findRegister("C")->address, 0xfffffffcu);
   EXPECT_EQ(lines("2147483647,C,led,true,8\n", 255)->findRegister("C")->address,
             static_cast<std::uint32_t>(2147483647ULL * 255));
}

TEST_F(RegisterFileParser, ALastLineWithoutLineEndIsRead) {
   EXPECT_THAT(lines("1,A,led,true,8\n2,B,led,true,8")->names(), ElementsAre("A", "B"));
}

TEST_F(RegisterFileParser, EmptyLinesAndLoneCarriageReturnsAreSkipped) {
   CaptureScope trace("*=9");
   EXPECT_THAT(lines("\n\r\n1,A,led,true,8\n\n\r\n2,B,led,true,8\n\n\r")->names(),
               ElementsAre("A", "B"));
   EXPECT_THAT(trace.texts(), IsEmpty());
}

TEST_F(RegisterFileParser, ALineOfBlanksIsNotSkipped) {
   EXPECT_EQ(failureOf(" \n"), Failure::invalidArgument("stoi"));
   EXPECT_EQ(failureOf("\t\r\n"), Failure::invalidArgument("stoi"));
   EXPECT_EQ(failureOf("\r\r\n"), Failure::invalidArgument("stoi")) << "one CR only is dropped";
}

TEST_F(RegisterFileParser, LinesMayEndInCarriageReturnAndLineFeed) {
   const auto unix = lines("1,A[0:1],led,false,8\n3,B,led\n");
   const auto dos = load("number,name,type,writeable,width\r\n1,A[0:1],led,false,8\r\n3,B,led\r\n");
   EXPECT_EQ(dos->names(), unix->names());
   unix->forEachRegister([&](const std::string& name, const HardwareRegister& record) {
      EXPECT_EQ(*dos->findRegister(name), record);
   });
}

TEST_F(RegisterFileParser, OnlyTheLastCarriageReturnOfALineIsDropped) {
   EXPECT_EQ(failureOf("1,A,led,true,8\r\r\n"), Failure::generic(EINVAL, "Invalid width token"));
   EXPECT_NE(lines("1,A\rB,led,true,8\n")->findRegister("A\rB"), nullptr);
}

TEST_F(RegisterFileParser, FieldsBeyondTheFifthAreIgnored) {
   const auto model = lines("1,A,led,true,8,9,x,,[no range],\n");
   EXPECT_EQ(*model->findRegister("A"), reg("A", 1, 8, 1, HardwareRegisterType::led, true));
}

TEST_F(RegisterFileParser, NamesAreTakenAsTheyStand) {
   using namespace std::string_literals;
   const auto model =
      lines("1, A b ,led,true,8\n2,\"Q\",led,true,8\n3,N\0L,led,true,8\n4,,led,true,8\n"s);
   EXPECT_THAT(model->names(), ElementsAre(""s, " A b "s, "\"Q\""s, "N\0L"s));
}

TEST_F(RegisterFileParser, ARepeatedNameKeepsTheLaterRecord) {
   CaptureScope trace("*=9");
   const auto model = lines("1,A,led,true,8\n2,A,status,false,9\n");
   EXPECT_EQ(model->size(), 1u);
   EXPECT_EQ(*model->findRegister("A"), reg("A", 2, 9, 1, HardwareRegisterType::status, false));
   EXPECT_EQ(*model->findName(1), "A") << "the address of the earlier one still names it";
   EXPECT_THAT(trace.texts(), IsEmpty()) << "neither is reported";
}

TEST_F(RegisterFileParser, ARepeatedNumberNamesTheLaterRegister) {
   CaptureScope trace("*=9");
   const auto model = lines("1,A,led,true,8\n1,B,led,true,8\n");
   EXPECT_EQ(*model->findName(1), "B");
   EXPECT_EQ(model->findRegister("A")->address, 1u);
   EXPECT_THAT(trace.texts(), IsEmpty());
}

// --- The number

TEST_F(RegisterFileParser, TheNumberIsAStandardIntConversion) {
   const auto model = lines(" 3,A,led,true,8\n\t+4,B,led,true,8\n0x10,C,led,true,8\n"
                            "12abc,D,led,true,8\n007,E,led,true,8\n5 6,F,led,true,8\n"
                            "-0,G,led,true,8\n");
   EXPECT_EQ(model->findRegister("A")->address, 3u);
   EXPECT_EQ(model->findRegister("B")->address, 4u);
   EXPECT_EQ(model->findRegister("C")->address, 0u);
   EXPECT_EQ(model->findRegister("D")->address, 12u);
   EXPECT_EQ(model->findRegister("E")->address, 7u);
   EXPECT_EQ(model->findRegister("F")->address, 5u);
   EXPECT_EQ(model->findRegister("G")->address, 0u);
}

TEST_F(RegisterFileParser, ALineWithoutDigitsAtItsStartIsTheConversionsError) {
   for (const char* line : {"x,A,led,true,8", "# comment", ",A,led,true,8", "-,A", ",", " ,1", "+",
                            "number,name,type,writeable,width"}) {
      EXPECT_EQ(failureOf(line), Failure::invalidArgument("stoi")) << line;
   }
}

TEST_F(RegisterFileParser, ANumberEndsAtANulByte) {
   using namespace std::string_literals;
   EXPECT_EQ(failureOf("\0001,A,led,true,8"s), Failure::invalidArgument("stoi"));
   EXPECT_EQ(lines("1\0002,A,led,true,8"s)->findRegister("A")->address, 1u);
}

TEST_F(RegisterFileParser, ANumberBeyondAnIntIsTheConversionsError) {
   for (const char* line : {"2147483648,A,led,true,8", "-2147483649,A,led,true,8",
                            "99999999999999999999999,A,led,true,8"}) {
      EXPECT_EQ(failureOf(line), Failure::outOfRange("stoi")) << line;
   }
}

TEST_F(RegisterFileParser, ANegativeNumberIsAnInvalidAddress) {
   const Failure invalid = Failure::generic(EINVAL, "Invalid address token");
   EXPECT_EQ(failureOf("-1,A,led,true,8"), invalid);
   EXPECT_EQ(failureOf("-2147483648,A,led,true,8"), invalid);
   EXPECT_EQ(failureOf("-1,A[0:1],led,true,8"), invalid) << "the first of the array decides";
}

TEST_F(RegisterFileParser, ALineWithoutCommaIsANumberOnly) {
   CaptureScope trace("TarnRegFile/RegisterFileHelper=8");
   const auto model = lines("7,A,led,true,8\n9\n");
   EXPECT_EQ(model->size(), 1u) << "the name is that of the record before";
   EXPECT_EQ(model->findRegister("A")->address, 9u);
   EXPECT_EQ(*model->findName(7), "A");
   EXPECT_EQ(*model->findName(9), "A");
   EXPECT_THAT(trace.texts(), ElementsAre("Incomplete CSV fields. Found 1 fields only."));
}

TEST_F(RegisterFileParser, ARangeBeforeTheFirstCommaIsNotExpanded) {
   EXPECT_EQ(lines("5[0:9],A,led,true,8\n")->size(), 1u);
   EXPECT_EQ(lines("5[1:0],A,led,true,8\n")->size(), 1u);
   EXPECT_EQ(lines("5[0:9]\n")->size(), 1u);
}

// --- Type and writable

TEST_F(RegisterFileParser, AnUnknownTypeIsTracedAndKept) {
   CaptureScope trace("TarnRegFile/RegisterFileHelper=8");
   const auto model = lines("1,A,gizmo,true,8\n2,B,,true,8\n3,C,CFG,true,8\n4,D,unknown,true,8\n"
                            "5,E,cfg,true,8\n");
   EXPECT_EQ(model->size(), 5u);
   EXPECT_EQ(*model->findRegister("A"), reg("A", 1, 8, 1, HardwareRegisterType::unknown, true));
   EXPECT_EQ(model->findRegister("E")->type, HardwareRegisterType::cfg);
   EXPECT_THAT(trace.texts(),
               ElementsAre("Unknown register type 'gizmo'", "Unknown register type ''",
                           "Unknown register type 'CFG'", "Unknown register type 'unknown'"));
   EXPECT_EQ(trace.records().front(),
             (CaptureSink::Entry{"TarnRegFile/RegisterFileHelper", "parseCsv", 8,
                                 "Unknown register type 'gizmo'"}));
}

TEST_F(RegisterFileParser, AnUnknownTypeIsTracedForEachRegisterOfAnArray) {
   EXPECT_THAT(traces("1,A[0:1],gizmo,true,8\n"),
               ElementsAre("Unknown register type 'gizmo'", "Unknown register type 'gizmo'"));
}

TEST_F(RegisterFileParser, BelowLevelEightNothingIsTraced) {
   CaptureScope trace("TarnRegFile/*=7");
   lines("1,A,gizmo\n");
   EXPECT_THAT(trace.texts(), IsEmpty());
}

TEST_F(RegisterFileParser, OnlyTheExactWordFalseMakesARegisterReadOnly) {
   const auto model = lines("1,A,led,false,8\n2,B,led,False,8\n3,C,led,,8\n4,D,led, false,8\n"
                            "5,E,led,false ,8\n6,F,led,0,8\n7,G,led,FALSE,8\n8,H,led,no,8\n");
   EXPECT_FALSE(model->findRegister("A")->writable);
   for (const char* name : {"B", "C", "D", "E", "F", "G", "H"}) {
      EXPECT_TRUE(model->findRegister(name)->writable) << name;
   }
}

// --- Width

TEST_F(RegisterFileParser, WidthsZeroToThirtyTwoAreAccepted) {
   const auto model = lines("1,A,led,true,0\n2,B,led,true,32\n3,C,led,true,00000000008\n");
   EXPECT_EQ(model->findRegister("A")->width, 0u);
   EXPECT_EQ(model->findRegister("B")->width, 32u);
   EXPECT_EQ(model->findRegister("C")->width, 8u);
}

TEST_F(RegisterFileParser, AWidthAboveThirtyTwoIsUnsupported) {
   const Failure unsupported = Failure::generic(EINVAL, "Unsupported register width");
   EXPECT_EQ(failureOf("1,A,led,true,33"), unsupported);
   EXPECT_EQ(failureOf("1,A,led,true,4294967295"), unsupported);
}

TEST_F(RegisterFileParser, AWidthThatIsNotPlainDigitsIsInvalid) {
   using namespace std::string_literals;
   for (const auto& line :
        {"1,A,led,true, 8"s, "1,A,led,true,8 "s, "1,A,led,true,+8"s, "1,A,led,true,-8"s,
         "1,A,led,true,0x8"s, "1,A,led,true,x"s, "3,A,led,true,,x"s, "1,A,led,true,8.0"s,
         "1,A,led,true,4294967296"s, "1,A,led,true,99999999999999999999"s, "1,A,led,true,8\0"s}) {
      EXPECT_EQ(failureOf(line), Failure::generic(EINVAL, "Invalid width token")) << line;
   }
}

// --- Incomplete lines

TEST_F(RegisterFileParser, AMissingFieldIsTracedWithTheNumberFound) {
   EXPECT_THAT(traces("1\n1,A\n1,A,led\n1,A,led,true\n1,A,led,true,8\n"),
               ElementsAre("Incomplete CSV fields. Found 1 fields only.",
                           "Incomplete CSV fields. Found 2 fields only.",
                           "Incomplete CSV fields. Found 3 fields only.",
                           "Incomplete CSV fields. Found 4 fields only."));
   CaptureScope trace("TarnRegFile/RegisterFileHelper=8");
   lines("1\n");
   EXPECT_THAT(trace.records(),
               ElementsAre(CaptureSink::Entry{"TarnRegFile/RegisterFileHelper", "parseCsv", 8,
                                              "Incomplete CSV fields. Found 1 fields only."}));
}

TEST_F(RegisterFileParser, ATrailingCommaBringsNoFurtherField) {
   EXPECT_THAT(traces("3,A,led,true,\n"),
               ElementsAre("Incomplete CSV fields. Found 4 fields only."));
   EXPECT_THAT(traces("3,\n"), ElementsAre("Incomplete CSV fields. Found 1 fields only."));
   EXPECT_THAT(traces("3,A,led,true,8,\n"), IsEmpty());
}

TEST_F(RegisterFileParser, AMissingFieldHasTheValueOfTheRecordBefore) {
   const auto model = lines("8,B,led,false,12\n9,C,cfg\n10,D\n11,E,led,true\n12,F\n");
   EXPECT_EQ(*model->findRegister("C"), reg("C", 9, 12, 1, HardwareRegisterType::cfg, false));
   EXPECT_EQ(*model->findRegister("D"), reg("D", 10, 12, 1, HardwareRegisterType::cfg, false));
   EXPECT_EQ(*model->findRegister("E"), reg("E", 11, 12, 1, HardwareRegisterType::led, true));
   EXPECT_EQ(*model->findRegister("F"), reg("F", 12, 12, 1, HardwareRegisterType::led, true));
}

TEST_F(RegisterFileParser, TheArraySizeIsNotCarriedOver) {
   const auto model = lines("1,A[0:4],led,true,8\n9,C\n20,D[0:1]\n");
   EXPECT_EQ(model->findRegister("C")->arraySize, 1u);
   EXPECT_EQ(model->findRegister("D[1]")->arraySize, 2u);
   EXPECT_EQ(model->findRegister("D[1]")->width, 8u);
}

TEST_F(RegisterFileParser, ValuesAreCarriedOverFromTheLastOfAnArrayToo) {
   // The type differs from register to register of the array.
   const auto model = lines("1,A,[0:1],true,8\n9,C\n");
   EXPECT_EQ(model->size(), 2u) << "both texts of the array have the name A";
   EXPECT_EQ(model->findRegister("A")->address, 2u);
   EXPECT_EQ(model->findRegister("C")->width, 8u);
}

TEST_F(RegisterFileParser, TheFirstLineCarriesOverFromNothing) {
   EXPECT_EQ(*lines("9,C\n")->findRegister("C"),
             reg("C", 9, 0, 1, HardwareRegisterType::unknown, false));
   EXPECT_EQ(*lines("9\n")->findRegister(""),
             reg("", 9, 0, 1, HardwareRegisterType::unknown, false));
}

TEST_F(RegisterFileParser, NothingIsCarriedOverFromOneFileToTheNext) {
   const auto helper = TarnRegFile::regFileHelperFactory("h");
   helper->parseCsv(_dir.write("one.csv", header + "1,A,led,true,8\n"), 1);
   const auto model = helper->parseCsv(_dir.write("two.csv", header + "9,C\n"), 1);
   EXPECT_EQ(*model->findRegister("C"), reg("C", 9, 0, 1, HardwareRegisterType::unknown, false));
}

TEST_F(RegisterFileParser, AnIncompleteLineOfAnArrayIsTracedForEachRegister) {
   EXPECT_THAT(traces("1,A[0:2],led\n"), testing::SizeIs(3));
}

// --- Arrays

TEST_F(RegisterFileParser, AnArrayTakesConsecutiveNumbers) {
   const auto model = lines("5,RX[0:2],counter,false,16\n", 4);
   EXPECT_THAT(model->names(), ElementsAre("RX[0]", "RX[1]", "RX[2]"));
   for (std::uint32_t i = 0; i < 3; ++i) {
      const std::string name = "RX[" + std::to_string(i) + "]";
      EXPECT_EQ(*model->findRegister(name),
                reg(name, (5 + i) * 4, 16, 3, HardwareRegisterType::counter, false));
      EXPECT_EQ(*model->findName((5 + i) * 4), name);
   }
}

TEST_F(RegisterFileParser, BracketsWithoutRangeAreAPlainName) {
   const auto model = lines("5,RX[2],led,true,8\n");
   EXPECT_EQ(*model->findRegister("RX[2]"), reg("RX[2]", 5, 8, 1, HardwareRegisterType::led, true));
   EXPECT_EQ(model->size(), 1u);
}

TEST_F(RegisterFileParser, TheLeftmostRangeVariesSlowestAndNumbersFollow) {
   const auto model = lines("10,Q[0:1]_X[2:3],counter,true,32\n");
   EXPECT_EQ(*model->findName(10), "Q[0]_X[2]");
   EXPECT_EQ(*model->findName(11), "Q[0]_X[3]");
   EXPECT_EQ(*model->findName(12), "Q[1]_X[2]");
   EXPECT_EQ(*model->findName(13), "Q[1]_X[3]");
   EXPECT_EQ(model->findRegister("Q[0]_X[2]")->arraySize, 4u);
}

TEST_F(RegisterFileParser, ARangeInALaterFieldIsExpandedToo) {
   CaptureScope trace("TarnRegFile/RegisterFileHelper=8");
   const auto model = lines("5,A,led[0:1],true,8\n");
   EXPECT_EQ(*model->findRegister("A"), reg("A", 6, 8, 2, HardwareRegisterType::unknown, true));
   EXPECT_EQ(*model->findName(5), "A");
   EXPECT_EQ(*model->findName(6), "A");
   EXPECT_THAT(trace.texts(),
               ElementsAre("Unknown register type 'led[0]'", "Unknown register type 'led[1]'"));
   EXPECT_EQ(lines("5,A,led,false[0:1],8\n")->findRegister("A")->writable, true);
   EXPECT_EQ(failureOf("5,A,led,true,8[0:1]\n"), Failure::generic(EINVAL, "Invalid width token"));
}

TEST_F(RegisterFileParser, TheHeadOfTheNumberDoesNotChangeTheArray) {
   const auto model = lines("0x5 ,A[0:1],led,true,8\n");
   EXPECT_EQ(*model->findName(0), "A[0]");
   EXPECT_EQ(*model->findName(1), "A[1]");
}

TEST_F(RegisterFileParser, AnArrayMayRunPastTheLargestInt) {
   const auto model = lines("2147483646,A[0:2],led,true,8\n");
   EXPECT_EQ(model->findRegister("A[2]")->address, 2147483648u);
}

TEST_F(RegisterFileParser, ABadBoundIsTheConversionsError) {
   EXPECT_EQ(failureOf("1,A[x:1],led,true,8"), Failure::invalidArgument("stoi"));
   EXPECT_EQ(failureOf("1,A[0:],led,true,8"), Failure::invalidArgument("stoi"));
   EXPECT_EQ(failureOf("1,A[0:2147483648],led,true,8"), Failure::outOfRange("stoi"));
   EXPECT_EQ(failureOf("1,A,led,true,8[:]"), Failure::invalidArgument("stoi"));
}

using RegisterFileParserDeathTest = RegisterFileParser;

TEST_F(RegisterFileParserDeathTest, ReversedBoundsStopTheProcess) {
   EXPECT_DEATH(lines("1,A[1:0],led,true,8"),
                HasSubstr("TarnRegFile/RegisterFileHelper: _expandArray: assertion failed: "
                          "upper >= lower && \"incorrect sub-array index values!\""));
}

TEST_F(RegisterFileParser, TheNumberIsLookedAtBeforeTheRangesAndTheseBeforeTheFields) {
   EXPECT_EQ(failureOf("x,A[1:0],led,true,99"), Failure::invalidArgument("stoi"));
   EXPECT_EQ(failureOf("99999999999,A[x:0],led,true,99"), Failure::outOfRange("stoi"));
   EXPECT_EQ(failureOf("-1,A[x:0],led,true,99"), Failure::invalidArgument("stoi"));
   EXPECT_EQ(failureOf("-1,A,led,true,99"), Failure::generic(EINVAL, "Invalid address token"));
   EXPECT_EQ(failureOf("1,A,led,true,99x"), Failure::generic(EINVAL, "Invalid width token"));
}

// --- The part of a line that is expanded

TEST_F(RegisterFileParser, FarBehindTheFifthCommaNothingIsExpanded) {
   EXPECT_EQ(lines("1,A,led,true,8,[0:9]\n")->size(), 1u);
   EXPECT_EQ(lines("1,A,led,true,8,note [1:0]\n")->findRegister("A")->arraySize, 1u);
   EXPECT_EQ(lines("1,A,led,true,8,x,y,[x:y]\n")->findRegister("A")->arraySize, 1u);
}

// The part is as long as the offset of the fifth comma but begins at the first: it reaches behind
// the fifth comma by one character less than the number has, "[0:1]" needs a number of six.
TEST_F(RegisterFileParser, JustBehindTheFifthCommaARangeIsExpandedWhenTheNumberIsLong) {
   EXPECT_EQ(*lines("000005,A,led,true,8,[0:1]\n")->findRegister("A"),
             reg("A", 6, 8, 2, HardwareRegisterType::led, true));
   EXPECT_EQ(*lines("00005,A,led,true,8,[0:1]\n")->findRegister("A"),
             reg("A", 5, 8, 1, HardwareRegisterType::led, true));
   EXPECT_EQ(lines("0000005,A,led,true,8,x[0:1]\n")->findRegister("A")->arraySize, 2u);
   EXPECT_EQ(lines("000005,A,led,true,8,x[0:1]\n")->findRegister("A")->arraySize, 1u);
}

TEST_F(RegisterFileParser, WithFourCommasTheLineIsExpandedToItsEnd) {
   EXPECT_EQ(failureOf("1,A,led,true,8 and a long text behind it [0:1]"),
             Failure::generic(EINVAL, "Invalid width token"));
   EXPECT_EQ(failureOf("1,A,led,true,8 and a long text behind it [x:1]"),
             Failure::invalidArgument("stoi"));
}

// --- Size

TEST_F(RegisterFileParser, HugeArraysAreRefused) {
   EXPECT_EQ(failureOf("1,A[0:1048576],led,true,8"),
             Failure::generic(EINVAL, "Register array expands to more than 1048576 registers"));
   EXPECT_EQ(failureOf("1,A[0:2147483647][0:2147483647],led,true,8"),
             Failure::generic(EINVAL, "Register array expands to more than 1048576 registers"));
}

TEST_F(RegisterFileParser, AFileOfManyLargeArraysIsRefused) {
   std::string text;
   for (int i = 0; i < 5; ++i) {
      // The same names and numbers again and again: what counts is the work.
      text += "1,A[0:1048575],led,true,8\n";
   }
   EXPECT_EQ(failureOf(text),
             Failure::generic(EINVAL, "Register file defines more than 4194304 registers"));
}

TEST_F(RegisterFileParser, AFileOfManyLongArraysIsRefused) {
   std::string text;
   for (int i = 0; i < 5; ++i) {
      text += "1,A[0:1023],led,true,8," + std::string(250 << 10, 'x') + "\n";
   }
   EXPECT_EQ(failureOf(text),
             Failure::generic(EINVAL, "Register file expands to more than 1073741824 bytes"));
}

TEST_F(RegisterFileParser, AVeryLongLineIsOneLine) {
   const std::string name(100'000'000, 'n');
   const auto model = lines("1," + name + ",led,true,8\n2,B,led,true,8\n");
   EXPECT_EQ(model->size(), 2u);
   EXPECT_NE(model->findRegister(name), nullptr);
}

TEST_F(RegisterFileParser, AVeryLongFirstLineOfAnotherKindIsRefusedWithoutReadingIt) {
   // A file of holes, much larger than memory.
   const std::string path = _dir.write("sparse", "");
   ASSERT_EQ(::truncate(path.c_str(), 1LL << 40), 0);
   EXPECT_EQ(openFailureOf(path), Failure::generic(EINVAL, "Wrong CSV header"));
}

TEST_F(RegisterFileParser, AVeryLongNumberFieldIsStillANumber) {
   EXPECT_EQ(lines(std::string(1'000'000, '0') + "7,A,led,true,8\n")->findRegister("A")->address,
             7u);
}

TEST_F(RegisterFileParser, VeryManyCommasAndBracketsTakeLinearTime) {
   EXPECT_EQ(lines("1,A,led,true,8" + std::string(3'000'000, ',') + "\n")->size(), 1u);
   EXPECT_EQ(lines("1,A" + std::string(3'000'000, '[') + ",led,true,8\n")->size(), 1u);
   EXPECT_EQ(
      lines("1,A" + std::string(3'000'000, '[') + std::string(3'000'000, ']') + ",led,true,8\n")
         ->size(),
      1u);
}

TEST_F(RegisterFileParser, WhatFailsLeavesNoModelBehind) {
   const auto helper = TarnRegFile::regFileHelperFactory("h");
   helper->init(_dir.write("good.csv", header + "1,A,led,true,8\n"), 1, nullptr);
   const auto model = helper->regFilePtr();
   EXPECT_THROW(helper->parseCsv(_dir.write("bad.csv", header + "1,B,led,true,8\nx\n"), 4),
                std::invalid_argument);
   EXPECT_EQ(helper->regFilePtr(), model);
   EXPECT_EQ(helper->addrBlockSize(), 1);
   EXPECT_THAT(model->names(), ElementsAre("A"));
}

// --- Everything at once

// One line as the rules tell it, with a plain loop in place of every clever step.
struct Reference {
   std::map<std::string, HardwareRegister> byName;
   std::map<std::uint32_t, std::string> byAddress;
   HardwareRegister record;

   static std::vector<std::string> fields(const std::string& line) {
      std::vector<std::string> found;
      std::string field;
      for (const char c : line) {
         if (c == ',') {
            found.push_back(field);
            field.clear();
         } else {
            field += c;
         }
      }
      if (!field.empty()) {
         found.push_back(field);
      }
      return found;
   }

   void line(int number, const std::vector<std::string>& expanded, std::uint8_t blockSize) {
      for (std::size_t k = 0; k < expanded.size(); ++k) {
         const auto all = fields(std::to_string(number + static_cast<int>(k)) + expanded[k]);
         for (std::size_t i = 0; i < all.size(); ++i) {
            switch (i) {
            case 0:
               record.address = static_cast<std::uint32_t>(std::stoul(all[0])) * blockSize;
               break;
            case 1:
               record.name = all[1];
               break;
            case 2:
               record.type = HardwareRegister::regTypeFromString(all[2]);
               break;
            case 3:
               record.writable = all[3] != "false";
               break;
            case 4:
               record.width = static_cast<std::uint32_t>(std::stoul(all[4]));
               break;
            default:
               break;
            }
         }
         record.arraySize = static_cast<std::uint32_t>(expanded.size());
         record.accessWidth = 32;
         byName[record.name] = record;
         byAddress[record.address] = record.name;
      }
   }
};

TEST_F(RegisterFileParser, AgreesWithTheRulesOnRandomLists) {
   std::mt19937 random(7);
   const auto pick = [&](std::initializer_list<std::string> from) {
      return *(from.begin() + random() % from.size());
   };
   for (int round = 0; round < 150; ++round) {
      Reference reference;
      std::string text;
      const auto blockSize = static_cast<std::uint8_t>(random() % 9);
      for (int i = 0; i < 20; ++i) {
         const int number = static_cast<int>(random() % 60);
         const std::string name = pick({"A", "B", "", " C", "D[1]"});
         const int size = static_cast<int>(random() % 4);
         const std::string rest =
            pick({",led,true,8", ",cfg,false,32,more", ",,x,0", ",status,", ",id", "", ","});
         std::vector<std::string> expanded;
         if (size == 0) {
            expanded.push_back("," + name + rest);
            text += std::to_string(number) + "," + name + rest + pick({"\n", "\r\n"});
         } else {
            for (int k = 0; k < size; ++k) {
               expanded.push_back("," + name + "[" + std::to_string(k) + "]" + rest);
            }
            text += std::to_string(number) + "," + name + "[0:" + std::to_string(size - 1) + "]" +
                    rest + pick({"\n", "\r\n", "\n\n"});
         }
         reference.line(number, expanded, blockSize);
      }
      const auto model = lines(text, blockSize);
      ASSERT_EQ(model->size(), reference.byName.size()) << text;
      for (const auto& [name, record] : reference.byName) {
         ASSERT_NE(model->findRegister(name), nullptr) << name << "\n" << text;
         ASSERT_EQ(model->findRegister(name)->stringRep(), record.stringRep()) << text;
      }
      ASSERT_EQ(model->addresses().size(), reference.byAddress.size()) << text;
      for (const auto& [address, name] : reference.byAddress) {
         ASSERT_EQ(*model->findName(address), name) << text;
      }
   }
}

} // namespace
