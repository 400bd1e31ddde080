#include "board/BoardFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "board/FileError.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

namespace {

using Board::BoardFile;
using testing::ElementsAre;

/// What the text of a file named "b.toml" fails with.
std::string reason(std::string_view text) {
   try {
      BoardFile board(text, "b.toml");
   } catch (const Board::FileError& error) {
      return error.what();
   }
   return "nothing";
}

std::string failureToOpen(const std::string& path) {
   try {
      BoardFile board(path);
   } catch (const Board::FileError& error) {
      return error.what();
   }
   return "nothing";
}

TEST(BoardFile, NamesDevicesWithListAndTransport) {
   const BoardFile board("[devices.fpga]\n"
                         "list = 'fpga.csv'\n"
                         "transport = 'i2c:/dev/i2c-3@0x50?flavour=2'\n"
                         "[devices.cpld]\n"
                         "list = '/lists/cpld.csv'\n"
                         "transport = 'pci:03:00.0'\n"
                         "[devices.'a b']\n"
                         "list = 'x/y.csv'\n"
                         "transport = 'mock:'\n",
                         "/etc/board/b.toml");
   std::vector<std::string> found;
   for (const auto& device : board.devices()) {
      found.push_back(device.name + " " + device.list + " " + device.url.text());
   }
   EXPECT_THAT(found,
               ElementsAre("a b /etc/board/x/y.csv mock:", "cpld /lists/cpld.csv pci:03:00.0",
                           "fpga /etc/board/fpga.csv i2c:/dev/i2c-3@0x50?flavour=2"));
   ASSERT_TRUE(board.find("cpld"));
   EXPECT_EQ(board.find("cpld")->list, "/lists/cpld.csv");
   EXPECT_EQ(board.find("CPLD"), nullptr);
   EXPECT_EQ(board.find(""), nullptr);
   EXPECT_EQ(board.path(), "/etc/board/b.toml");
}

TEST(BoardFile, FilesOfADeviceAreBesideTheBoardFile) {
   const TestSupport::EnvironmentVariable noValues("REG_VALUES_FILE", std::nullopt);
   const std::string text = "[devices.d]\nlist = 'l.csv'\ntransport = 'mock:values.csv'\n";
   const auto under = [&](const char* path) { return BoardFile(text, path).devices().at(0); };
   EXPECT_EQ(under("b.toml").list, "l.csv");
   EXPECT_EQ(under("b.toml").url.valuesFile(), "values.csv");
   EXPECT_EQ(under("some/b.toml").list, "some/l.csv");
   EXPECT_EQ(under("some/b.toml").url.valuesFile(), "some/values.csv");
   EXPECT_EQ(under("/b.toml").url.valuesFile(), "/values.csv");
}

TEST(BoardFile, TablesOfOtherProgramsAreLeftAlone) {
   EXPECT_TRUE(BoardFile("", "b.toml").devices().empty());
   EXPECT_TRUE(BoardFile("[simulate.i2c.d]\nx = 1\n[other]\n", "b.toml").devices().empty());
   EXPECT_TRUE(BoardFile("[devices]\n", "b.toml").devices().empty());
}

TEST(BoardFile, WhatIsWrongIsSaidWithItsPlace) {
   EXPECT_EQ(reason("devices = 3\n"), "b.toml:1:11: 'devices' must be a table");
   EXPECT_EQ(reason("[devices]\nd = 3\n"), "b.toml:2:5: 'd' must be a table");
   EXPECT_EQ(reason("[devices.d]\ntransport = 'mock:'\n"),
             "b.toml:1:1: [devices.d] needs the key 'list'");
   EXPECT_EQ(reason("[devices.d]\nlist = 'l'\n"),
             "b.toml:1:1: [devices.d] needs the key 'transport'");
   EXPECT_EQ(reason("[devices.d]\nlist = 3\ntransport = 'mock:'\n"),
             "b.toml:2:8: 'list' must be a string");
   EXPECT_EQ(reason("[devices.d]\nlist = ''\ntransport = 'mock:'\n"),
             "b.toml:2:8: 'list' must not be empty");
   EXPECT_EQ(reason("[devices.d]\nlist = 'l'\ntransport = 'mock:'\nlsit = 'x'\n"),
             "b.toml:4:1: [devices.d] has no key 'lsit'");
   EXPECT_EQ(reason("[devices.'']\nlist = 'l'\ntransport = 'mock:'\n"),
             "b.toml:1:10: a device needs a name");
   EXPECT_THAT(reason("[devices.d]\nlist = 'l'\ntransport = 'usb:'\n"),
               testing::StartsWith("b.toml:3:13: transport 'usb:' is not known; there is "));
}

TEST(BoardFile, WhatIsNoTomlIsRefusedWithItsPlace) {
   EXPECT_THAT(reason("[devices.d\nlist = 1\n"), testing::StartsWith("b.toml:1:"));
   EXPECT_THAT(reason("a = 1\na = 2\n"), testing::StartsWith("b.toml:2:"));
   EXPECT_THAT(reason(std::string("a = \"\x1b[31m\0\"\n", 13)), testing::StartsWith("b.toml:1:"));
   EXPECT_THAT(reason("a = \"\xff\"\n"), testing::StartsWith("b.toml:1:"));
   EXPECT_THAT(reason("a = " + std::string(100'000, '[')), testing::StartsWith("b.toml:1:"));
   // Nothing from a file steers a terminal.
   for (const char c : reason("\x1b[31m = \n")) {
      EXPECT_GE(c, ' ');
   }
}

TEST(BoardFile, AFileThatCannotBeReadIsNamed) {
   const TestSupport::TempDir dir;
   EXPECT_EQ(failureToOpen(dir.path("no")), dir.path("no") + ": No such file or directory");
   EXPECT_EQ(failureToOpen(dir.path()), dir.path() + ": not a regular file");
   EXPECT_EQ(failureToOpen("/dev/zero"), "/dev/zero: not a regular file");
   const std::string large = dir.write("large", std::string((4 << 20) + 1, '\n'));
   EXPECT_EQ(failureToOpen(large), large + ": larger than 4194304 bytes");
   const std::string good = dir.write("good", "[devices.d]\nlist = 'l'\ntransport = 'mock:'\n" +
                                                 std::string(4 << 10, '\n'));
   EXPECT_EQ(BoardFile(good).devices().at(0).list, dir.path("l"));
}

} // namespace
