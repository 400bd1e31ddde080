#include "TarnRegFile/MockTransportMethodImpl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/trace/CaptureScope.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Failure.h"
#include "tests/support/FileStamp.h"
#include "tests/support/TempDir.h"
#include "tests/support/VirtualSlot.h"

namespace {

using Hardware::hardwareRegisterFileFactory;
using TarnRegFile::HardwareRegister;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::MockTransportMethodImpl;
using TarnRegFile::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using TestSupport::EnvironmentVariable;
using TestSupport::Failure;
using TestSupport::FileStamp;
using TestSupport::TempDir;

constexpr const char* variable = "REG_VALUES_FILE";

HardwareRegister reg(const std::string& name, std::uint32_t address) {
   HardwareRegister record;
   record.name = name;
   record.address = address;
   record.width = 8;
   record.arraySize = 1;
   return record;
}

/// Registers R0 to R9 at addresses 0, 4, ... 36, and LAST at the highest address.
Ptr<HardwareRegisterFile> model() {
   auto made = hardwareRegisterFileFactory("model");
   made->addrBlockSizeIs(4);
   for (std::uint32_t i = 0; i < 10; ++i) {
      made->nameToRegMapIs("R" + std::to_string(i), reg("R" + std::to_string(i), i * 4));
   }
   made->nameToRegMapIs("LAST", reg("LAST", 0xfffffffc));
   return made;
}

class MockTransport : public testing::Test {
protected:
   using Mock = std::unique_ptr<MockTransportMethodImpl>;

   static Mock make() { return std::make_unique<MockTransportMethodImpl>("", model()); }

   /// A mock over a values file of this content.
   Mock over(const std::string& content) {
      _dir.write("values.csv", content);
      return make();
   }

   /// The lines of the values file behind its header, which must be there.
   std::vector<std::string> persisted() const {
      std::istringstream in(_dir.read("values.csv"));
      std::string line;
      std::getline(in, line);
      EXPECT_EQ(line, "Address,Value");
      std::vector<std::string> lines;
      while (std::getline(in, line)) {
         lines.push_back(line);
      }
      return lines;
   }

   TempDir _dir;
   std::string _file = _dir.path("values.csv");
   EnvironmentVariable _variable{variable, _file};
};

// --- Without a values file

TEST_F(MockTransport, WithoutTheVariableNothingIsOnDisk) {
   for (const std::optional<std::string>& value :
        {std::optional<std::string>(), std::optional<std::string>("")}) {
      const EnvironmentVariable none(variable, value);
      const auto mock = make();
      EXPECT_EQ(mock->regRead("R1"), 0u);
      mock->regWrite("R1", 7);
      const std::uint32_t words[] = {1, 2};
      mock->regWriteBlock("R2", words, 2);
      EXPECT_EQ(mock->regRead("R1"), 7u);
      EXPECT_EQ(mock->regRead("R3"), 2u);
   }
   EXPECT_TRUE(_dir.empty());
}

TEST_F(MockTransport, TheVariableIsReadWhenTheMockIsMade) {
   Mock mock;
   {
      const EnvironmentVariable none(variable, std::nullopt);
      mock = make();
   }
   mock->regWrite("R1", 7);
   EXPECT_FALSE(_dir.has("values.csv"));
   mock = make();
   {
      const EnvironmentVariable none(variable, std::nullopt);
      mock->regWrite("R1", 7);
   }
   EXPECT_THAT(persisted(), ElementsAre("4,7"));
}

TEST_F(MockTransport, ValuesAreThoseOfTheObject) {
   const EnvironmentVariable none(variable, std::nullopt);
   const auto one = make();
   const auto two = make();
   one->regWrite("R1", 7);
   EXPECT_EQ(two->regRead("R1"), 0u);
}

// --- The base

TEST_F(MockTransport, AddressesAreFourApart) {
   const std::string list =
      _dir.write("a.csv", "number,name,type,writeable,width\n3,A,led,false,8\n");
   MockTransportMethodImpl mock(list.c_str(), nullptr);
   EXPECT_EQ(mock.regFileHelper()->addrBlockSize(), 4);
   mock.regWrite("A", 1000);
   EXPECT_EQ(_dir.read("values.csv"), "Address,Value\n12,1000\n");
}

TEST_F(MockTransport, TheRegisterListIsLoadedBeforeTheValues) {
   _dir.write("values.csv", "h\nx,x\n");
   EXPECT_EQ(Failure([] { MockTransportMethodImpl("", nullptr); }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
   EXPECT_EQ(Failure([] { MockTransportMethodImpl("", model()); }),
             Failure::invalidArgument("stoul"));
}

TEST_F(MockTransport, OverridesTheFourAccessesInTheirSlots) {
   using TestSupport::virtualSlot;
   EXPECT_EQ(virtualSlot(&MockTransportMethodImpl::regRead), 2);
   EXPECT_EQ(virtualSlot(&MockTransportMethodImpl::regWrite), 3);
   EXPECT_EQ(virtualSlot(&MockTransportMethodImpl::regReadBlock), 4);
   EXPECT_EQ(virtualSlot(&MockTransportMethodImpl::regWriteBlock), 5);
}

// --- Reading and writing

TEST_F(MockTransport, ReadsBackAllThirtyTwoBitsWhateverTheRegisterSays) {
   // Its registers are 8 bits wide and not writable.
   const auto mock = make();
   mock->regWrite("R1", 0xdeadbeef);
   EXPECT_EQ(mock->regRead("R1"), 0xdeadbeefu);
}

TEST_F(MockTransport, TheFirstReadOfARegisterCreatesTheFile) {
   const auto mock = make();
   EXPECT_FALSE(_dir.has("values.csv")) << "making the mock does not";
   EXPECT_EQ(mock->regRead("R3"), 0u);
   EXPECT_EQ(_dir.read("values.csv"), "Address,Value\n12,0\n");
}

TEST_F(MockTransport, AReadOfAKnownAddressPersistsNothing) {
   const auto mock = make();
   mock->regRead("R3");
   const FileStamp stamp = FileStamp::pastIs(_file);
   EXPECT_EQ(mock->regRead("R3"), 0u);
   EXPECT_EQ(FileStamp(_file), stamp);
   std::filesystem::remove(_file);
   EXPECT_EQ(mock->regRead("R3"), 0u);
   EXPECT_FALSE(_dir.has("values.csv"));
}

TEST_F(MockTransport, WritingTheSameValueTwicePersistsOnce) {
   const auto mock = make();
   mock->regWrite("R1", 5);
   const FileStamp stamp = FileStamp::pastIs(_file);
   mock->regWrite("R1", 5);
   EXPECT_EQ(FileStamp(_file), stamp);
   mock->regWrite("R1", 6);
   EXPECT_NE(FileStamp(_file), stamp);
   EXPECT_THAT(persisted(), ElementsAre("4,6"));
}

TEST_F(MockTransport, WritingZeroToAnUntouchedRegisterPersists) {
   make()->regWrite("R1", 0);
   EXPECT_THAT(persisted(), ElementsAre("4,0"));
}

TEST_F(MockTransport, WritingZeroToARegisterThatWasReadDoesNotPersist) {
   const auto mock = make();
   mock->regRead("R1");
   const FileStamp stamp = FileStamp::pastIs(_file);
   mock->regWrite("R1", 0);
   EXPECT_EQ(FileStamp(_file), stamp);
}

TEST_F(MockTransport, EveryPersistRewritesTheSameFileInPlace) {
   const auto mock = make();
   mock->regWrite("R1", 5);
   const FileStamp before(_file);
   mock->regWrite("R2", 6);
   EXPECT_EQ(FileStamp(_file).inode, before.inode) << "no temporary file, no rename";
   EXPECT_THAT(persisted(), UnorderedElementsAre("4,5", "8,6"));
   EXPECT_EQ(std::distance(std::filesystem::directory_iterator(_dir.path()), {}), 1);
}

TEST_F(MockTransport, ShorterContentLeavesNoRestOfTheOldOne) {
   _dir.write("values.csv", "Address,Value\n");
   const auto mock = make();
   _dir.write("values.csv", std::string(10000, 'x'));
   mock->regWrite("R1", 5);
   EXPECT_EQ(_dir.read("values.csv"), "Address,Value\n4,5\n");
}

TEST_F(MockTransport, TheDestructorPersistsNothing) {
   auto mock = make();
   mock->regWrite("R1", 5);
   std::filesystem::remove(_file);
   mock.reset();
   EXPECT_FALSE(_dir.has("values.csv"));
}

TEST_F(MockTransport, AnUnknownNameChangesNeitherValuesNorFile) {
   const auto mock = make();
   mock->regWrite("R1", 5);
   const FileStamp stamp = FileStamp::pastIs(_file);
   const Failure unknown = Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'");
   std::uint32_t word = 77;
   EXPECT_EQ(Failure([&] { mock->regRead("NOPE"); }), unknown);
   EXPECT_EQ(Failure([&] { mock->regWrite("NOPE", 1); }), unknown);
   EXPECT_EQ(Failure([&] { mock->regReadBlock("NOPE", &word, 1); }), unknown);
   EXPECT_EQ(Failure([&] { mock->regWriteBlock("NOPE", &word, 1); }), unknown);
   EXPECT_EQ(Failure([&] { mock->regReadBlock("NOPE", nullptr, 0); }), unknown);
   EXPECT_EQ(Failure([&] { mock->regWriteBlock("NOPE", nullptr, 0); }), unknown);
   EXPECT_EQ(word, 77u);
   EXPECT_EQ(FileStamp(_file), stamp);
}

TEST_F(MockTransport, RegistersThatShareAnAddressShareTheirValue) {
   const auto source = model();
   source->nameToRegMapIs("ALIAS", reg("ALIAS", 4));
   MockTransportMethodImpl mock("", source);
   mock.regWrite("R1", 9);
   EXPECT_EQ(mock.regRead("ALIAS"), 9u);
}

// --- Blocks

TEST_F(MockTransport, ABlockReadTakesConsecutiveAddresses) {
   const auto mock = over("Address,Value\n8,1\n12,2\n16,3\n9,100\n");
   std::uint32_t words[4] = {7, 7, 7, 7};
   mock->regReadBlock("R2", words, 3);
   EXPECT_THAT(words, ElementsAre(1u, 2u, 3u, 7u));
}

TEST_F(MockTransport, ABlockReadPersistsOnceIfAnyAddressWasNew) {
   const auto mock = over("Address,Value\n8,1\n16,3\n");
   std::uint32_t words[3] = {7, 7, 7};
   mock->regReadBlock("R2", words, 3);
   EXPECT_THAT(words, ElementsAre(1u, 0u, 3u));
   EXPECT_THAT(persisted(), UnorderedElementsAre("8,1", "12,0", "16,3"));
   const FileStamp stamp = FileStamp::pastIs(_file);
   mock->regReadBlock("R2", words, 3);
   EXPECT_EQ(FileStamp(_file), stamp) << "nothing was new";
}

TEST_F(MockTransport, ABlockReadOfNothingDoesNothing) {
   const auto mock = make();
   mock->regReadBlock("R2", nullptr, 0);
   EXPECT_FALSE(_dir.has("values.csv"));
   mock->regWrite("R1", 1);
   EXPECT_THAT(persisted(), ElementsAre("4,1"));
}

TEST_F(MockTransport, ABlockWriteStoresConsecutiveWords) {
   const auto mock = make();
   const std::uint32_t words[] = {1, 0xffffffff, 3};
   mock->regWriteBlock("R2", words, 3);
   EXPECT_THAT(persisted(), UnorderedElementsAre("8,1", "12,4294967295", "16,3"));
   EXPECT_EQ(mock->regRead("R2"), 1u);
   EXPECT_EQ(mock->regRead("R3"), 0xffffffffu);
   EXPECT_EQ(mock->regRead("R4"), 3u);
   EXPECT_EQ(mock->regRead("R5"), 0u);
}

TEST_F(MockTransport, ABlockWriteAlwaysPersists) {
   const auto mock = make();
   mock->regWriteBlock("R2", nullptr, 0);
   EXPECT_EQ(_dir.read("values.csv"), "Address,Value\n") << "also of no words";
   const std::uint32_t word = 5;
   mock->regWriteBlock("R2", &word, 1);
   const FileStamp stamp = FileStamp::pastIs(_file);
   mock->regWriteBlock("R2", &word, 1);
   EXPECT_NE(FileStamp(_file).modified, stamp.modified) << "also when nothing changed";
   EXPECT_EQ(FileStamp(_file).content, stamp.content);
   FileStamp::pastIs(_file);
   mock->regWriteBlock("R2", nullptr, 0);
   EXPECT_NE(FileStamp(_file).modified, stamp.modified);
}

TEST_F(MockTransport, BlocksWrapAroundAtTheHighestAddress) {
   const auto mock = make();
   const std::uint32_t words[] = {1, 2, 3};
   mock->regWriteBlock("LAST", words, 3);
   EXPECT_THAT(persisted(), UnorderedElementsAre("4294967292,1", "0,2", "4,3"));
   std::uint32_t read[3] = {};
   mock->regReadBlock("LAST", read, 3);
   EXPECT_THAT(read, ElementsAre(1u, 2u, 3u));
   EXPECT_EQ(mock->regRead("R0"), 2u);
}

// --- Loading

TEST_F(MockTransport, AnEmptyFileOrOnlyAHeaderGivesNoValues) {
   for (const char* content : {"", "Address,Value\n", "Address,Value", "\n", "\n\n\n"}) {
      const auto mock = over(content);
      FileStamp::pastIs(_file);
      EXPECT_EQ(FileStamp(_file).content, content) << "loading writes nothing";
      EXPECT_EQ(mock->regRead("R1"), 0u);
      EXPECT_THAT(persisted(), ElementsAre("4,0"));
   }
}

TEST_F(MockTransport, TheFirstLineIsSkippedWhateverItHolds) {
   EXPECT_EQ(over("4,99\n")->regRead("R1"), 0u);
   EXPECT_EQ(over("garbage,garbage\n4,99\n")->regRead("R1"), 99u);
   EXPECT_EQ(over("\n4,99\n")->regRead("R1"), 99u);
}

TEST_F(MockTransport, LoadsEveryLine) {
   const auto mock = over("Address,Value\n4,1\n8,2\n\n12,3");
   EXPECT_EQ(mock->regRead("R1"), 1u);
   EXPECT_EQ(mock->regRead("R2"), 2u);
   EXPECT_EQ(mock->regRead("R3"), 3u) << "a last line without line end, too";
}

TEST_F(MockTransport, LinesWithoutACommaAreSkipped) {
   const auto mock = over("Address,Value\n12\n\r\nabc\n \n4,1\n");
   EXPECT_EQ(mock->regRead("R1"), 1u);
   EXPECT_THAT(_dir.read("values.csv"), "Address,Value\n12\n\r\nabc\n \n4,1\n");
}

TEST_F(MockTransport, ALaterLineForAnAddressWins) {
   EXPECT_EQ(over("h\n4,1\n4,2\n")->regRead("R1"), 2u);
}

TEST_F(MockTransport, CarriageReturnsAreTolerated) {
   const auto mock = over("Address,Value\r\n4,1\r\n8,2\r\n\r\n");
   EXPECT_EQ(mock->regRead("R1"), 1u);
   EXPECT_EQ(mock->regRead("R2"), 2u);
}

TEST_F(MockTransport, NumbersAreStandardConversionsCutToThirtyTwoBits) {
   const std::pair<const char*, std::uint32_t> cases[] = {
      {"4,4294967296", 0},  {"4,4294967297", 1},
      {"4,-1", 4294967295}, {"4,+5", 5},
      {"4, \t6", 6},        {" 4,7", 7},
      {"+4,8", 8},          {"4x,9y", 9},
      {"4,0x10", 0},        {"4,010", 10},
      {"4,1,2", 1},         {"4294967300,3", 3},
      {"-4294967292,4", 4}, {"4,18446744073709551615", 4294967295},
   };
   for (const auto& [line, value] : cases) {
      EXPECT_EQ(over("h\n" + std::string(line) + "\n")->regRead("R1"), value) << line;
   }
   using namespace std::string_literals;
   EXPECT_EQ(over("h\n4\0008,1\0002\n"s)->regRead("R1"), 1u) << "a number ends at a NUL byte";
}

TEST_F(MockTransport, AFieldWithoutDigitsMakesConstructionFail) {
   for (const char* line : {"12,abc", "12,", ",12", ",", "x,1", " ,1", "1, ", "-,1", "1,-"}) {
      EXPECT_EQ(Failure([&] { over("h\n4,1\n" + std::string(line) + "\n"); }),
                Failure::invalidArgument("stoul"))
         << line;
      EXPECT_EQ(_dir.read("values.csv"), "h\n4,1\n" + std::string(line) + "\n") << "untouched";
   }
}

TEST_F(MockTransport, ANumberBeyondSixtyFourBitsMakesConstructionFail) {
   for (const char* line :
        {"4,18446744073709551616", "18446744073709551616,4", "4,99999999999999999999999999"}) {
      EXPECT_EQ(Failure([&] { over("h\n" + std::string(line)); }), Failure::outOfRange("stoul"))
         << line;
   }
}

TEST_F(MockTransport, ValuesGoFromOneObjectToTheNext) {
   std::mt19937 random(11);
   std::map<std::string, std::uint32_t> expected;
   for (int round = 0; round < 20; ++round) {
      const auto mock = make();
      for (const auto& [name, value] : expected) {
         ASSERT_EQ(mock->regRead(name.c_str()), value);
      }
      for (int i = 0; i < 10; ++i) {
         const std::string name = "R" + std::to_string(random() % 10);
         const auto value = static_cast<std::uint32_t>(random());
         mock->regWrite(name.c_str(), value);
         expected[name] = value;
      }
   }
}

TEST_F(MockTransport, TheLastOfTwoWritersWins) {
   const auto one = make();
   const auto two = make();
   one->regWrite("R1", 1);
   two->regWrite("R2", 2);
   EXPECT_THAT(persisted(), ElementsAre("8,2")) << "it never saw the other's";
   one->regWrite("R3", 3);
   EXPECT_THAT(persisted(), UnorderedElementsAre("4,1", "12,3"));
}

// --- Files that are none

TEST_F(MockTransport, AFileThatCannotBeMadeIsDoneWithout) {
   const EnvironmentVariable unwritable(variable, _dir.path("none/values.csv"));
   const auto mock = make();
   EXPECT_EQ(mock->regRead("R1"), 0u);
   mock->regWrite("R1", 5);
   const std::uint32_t words[] = {1, 2};
   mock->regWriteBlock("R2", words, 2);
   EXPECT_EQ(mock->regRead("R1"), 5u);
   EXPECT_EQ(mock->regRead("R3"), 2u);
   EXPECT_TRUE(_dir.empty());
}

TEST_F(MockTransport, ADirectoryAsValuesFileIsDoneWithout) {
   const EnvironmentVariable directory(variable, _dir.path());
   const auto mock = make();
   mock->regWrite("R1", 5);
   EXPECT_EQ(mock->regRead("R1"), 5u);
   EXPECT_TRUE(_dir.empty());
}

TEST_F(MockTransport, ADeviceAsValuesFileIsNotReadWithoutEnd) {
   for (const char* device : {"/dev/zero", "/dev/null", "/dev/full"}) {
      const EnvironmentVariable onDevice(variable, device);
      const auto mock = make();
      mock->regWrite("R1", 5);
      EXPECT_EQ(mock->regRead("R1"), 5u) << device;
   }
}

TEST_F(MockTransport, APipeAsValuesFileIsReadToItsEnd) {
   const std::string path = _dir.path("pipe");
   ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
   const EnvironmentVariable onPipe(variable, path);
   std::thread writer([&] { std::ofstream(path) << "h\n4,11\n8,12\n"; });
   const auto mock = make();
   writer.join();
   EXPECT_EQ(mock->regRead("R1"), 11u);
   EXPECT_EQ(mock->regRead("R2"), 12u);
}

TEST_F(MockTransport, ASymbolicLinkIsFollowed) {
   _dir.write("real.csv", "h\n4,11\n");
   std::filesystem::create_symlink("real.csv", _file);
   const auto mock = make();
   EXPECT_EQ(mock->regRead("R1"), 11u);
   mock->regWrite("R1", 12);
   EXPECT_TRUE(std::filesystem::is_symlink(_file));
   EXPECT_EQ(_dir.read("real.csv"), "Address,Value\n4,12\n");
}

TEST_F(MockTransport, AnUnreadableFileIsDoneWithout) {
   _dir.write("values.csv", "h\n4,11\n");
   ASSERT_EQ(::chmod(_file.c_str(), 0), 0);
   ASSERT_EQ(::chmod(_dir.path().c_str(), 0755), 0);
   const auto check = [] {
      const auto mock = make();
      const bool ignored = mock->regRead("R1") == 0;
      mock->regWrite("R1", 5);
      return ignored && mock->regRead("R1") == 5;
   };
   if (::geteuid() != 0) {
      EXPECT_TRUE(check());
   } else {
      // Permissions mean nothing to the superuser: a child without its rights tries.
      const pid_t child = ::fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
         constexpr uid_t nobody = 65534;
         const bool dropped = ::setgid(nobody) == 0 && ::setuid(nobody) == 0;
         ::_exit(dropped && check() ? 0 : 1);
      }
      int status = 0;
      ASSERT_EQ(::waitpid(child, &status, 0), child);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   }
   ASSERT_EQ(::chmod(_file.c_str(), 0600), 0);
   EXPECT_EQ(_dir.read("values.csv"), "h\n4,11\n");
}

TEST_F(MockTransport, LeavesNoDescriptorOpenAndTracesNothing) {
   const auto count = [] {
      return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
   };
   Platform::Trace::CaptureScope trace("*=9");
   const auto before = count();
   const auto mock = over("h\n4,1\n");
   mock->regWrite("R2", 1);
   EXPECT_THROW(mock->regRead("NOPE"), std::system_error);
   EXPECT_THROW(over("h\nx,x\n"), std::invalid_argument);
   EXPECT_EQ(count(), before);
   EXPECT_THAT(trace.texts(), IsEmpty());
}

} // namespace
