// The simulated PCI resource: a file that the command maps, and that goes when the device does.

#include "tools/tarnsim/PciDevice.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "board/SimulatedBoardParser.h"
#include "tests/support/Failure.h"

namespace TarnSim {
namespace {

using TarnRegFile::Utils::UnixFdRes;
using TestSupport::Failure;

class PciDeviceTest : public testing::Test {
protected:
   static Board::PciSpec spec(const std::string& more = "") {
      return Board::simulatedBoardFromText("[simulate.pci.p]\nfunction = \"0000:03:00.0\"\n"
                                           "resource = 2\nsize = 0x40000\n" +
                                              more,
                                           "b.toml")
         .pci.at(0);
   }
   /// The device's file, as the command has it open too.
   int given(PciDevice& device) {
      UnixFdRes file(::memfd_create("resource", MFD_CLOEXEC));
      command = UnixFdRes(::dup(file.fd()));
      device.fileIs(std::move(file));
      return command.fd();
   }
   off_t size() const {
      struct stat status = {};
      EXPECT_EQ(::fstat(command.fd(), &status), 0);
      return status.st_size;
   }
   std::uint32_t wordAt(off_t offset) const {
      std::uint32_t word = 0;
      EXPECT_EQ(::pread(command.fd(), &word, sizeof word, offset), 4);
      return word;
   }
   static Failure error(const std::string& text) {
      return {typeid(std::runtime_error).name(), 0, text};
   }

   UnixFdRes command{-1};
};

TEST_F(PciDeviceTest, ItsFileHasTheResourcesSizeAndTheValuesOfTheBoard) {
   PciDevice device(spec("values = { 4 = 0x11223344, 0x3fffc = 7 }\n"));
   given(device);
   EXPECT_EQ(device.path(), "/sys/bus/pci/devices/0000:03:00.0/resource2");
   EXPECT_EQ(device.place(), "pci 0000:03:00.0 resource2 0x40000");
   EXPECT_EQ(size(), 0x40000);
   EXPECT_EQ(wordAt(4), 0x11223344U);
   EXPECT_EQ(device.registerAt(0x3fffc), 7U);
   EXPECT_FALSE(device.lost());
   EXPECT_EQ(device.faults(), nullptr) << "nobody sees its accesses";
}

TEST_F(PciDeviceTest, ItsRegistersAreWordsInsideTheResource) {
   PciDevice device(spec());
   given(device);
   for (const std::uint32_t address : {1U, 2U, 0x3fffeU, 0x40000U, 0xfffffffcU}) {
      const Failure none = Failure::range(fmt::format("There is no register at {:#x}", address));
      EXPECT_EQ(Failure([&] { device.registerAt(address); }), none);
      EXPECT_EQ(Failure([&] { device.registerIs(address, 1); }), none);
   }
   EXPECT_EQ(size(), 0x40000) << "and has not grown";
}

TEST_F(PciDeviceTest, LostItHasNoFileAndKeepsWhatItHeld) {
   PciDevice device(spec("values = { 4 = 1, 0x20000 = 2 }\n"));
   const int file = given(device);
   const std::uint32_t written = 3;
   ASSERT_EQ(::pwrite(file, &written, sizeof written, 0x30000), 4);
   device.lostIs(true);
   device.lostIs(true); // is lost already
   EXPECT_TRUE(device.lost());
   EXPECT_EQ(size(), 0) << "so that an access to a mapping is a bus error";
   EXPECT_EQ(device.registerAt(4), 1U);
   EXPECT_EQ(device.registerAt(0x30000), 3U);
   EXPECT_EQ(device.registerAt(0x3fffc), 0U) << "behind all that it held";
   device.registerIs(0x3fffc, 9);
   EXPECT_EQ(size(), 0) << "what is set meanwhile is for its return";
   device.lostIs(false);
   EXPECT_FALSE(device.lost());
   EXPECT_EQ(size(), 0x40000);
   EXPECT_EQ(wordAt(4), 1U);
   EXPECT_EQ(wordAt(0x20000), 2U);
   EXPECT_EQ(wordAt(0x30000), 3U);
   EXPECT_EQ(wordAt(0x3fffc), 9U);
   EXPECT_EQ(wordAt(8), 0U);
}

TEST_F(PciDeviceTest, OneThatIsNotPresentAtFirstHasItsValuesWhenItComes) {
   PciDevice device(spec("present = false\nvalues = { 4 = 1 }\n"));
   given(device);
   EXPECT_TRUE(device.lost());
   EXPECT_EQ(size(), 0);
   device.lostIs(false);
   EXPECT_EQ(wordAt(4), 1U);
}

TEST_F(PciDeviceTest, ACommandThatCutsItsFileOffIsAnErrorForWhoLooks) {
   PciDevice device(spec("values = { 4 = 1 }\n"));
   const int file = given(device);
   ASSERT_EQ(::ftruncate(file, 0), 0);
   EXPECT_EQ(Failure([&] { device.registerAt(4); }), error("The resource file cannot be read"));
   device.lostIs(true); // what is left of it, which is nothing
   EXPECT_EQ(device.registerAt(4), 0U);
   device.lostIs(false);
   EXPECT_EQ(size(), 0x40000) << "it comes back whole";
   EXPECT_EQ(device.registerAt(4), 0U);
}

TEST_F(PciDeviceTest, ACommandThatExtendsItsFileMakesNoLargerResource) {
   PciDevice device(spec());
   const int file = given(device);
   const std::uint32_t beyond = 5;
   ASSERT_EQ(::pwrite(file, &beyond, sizeof beyond, 0x80000), 4);
   device.lostIs(true);
   device.lostIs(false);
   EXPECT_EQ(size(), 0x40000);
}

TEST_F(PciDeviceTest, AFileThatMayNotBeChangedIsAnErrorAndTheDeviceStaysAsItWas) {
   PciDevice device(spec("values = { 4 = 1 }\n"));
   UnixFdRes file(::memfd_create("resource", MFD_CLOEXEC | MFD_ALLOW_SEALING));
   command = UnixFdRes(::dup(file.fd()));
   device.fileIs(std::move(file));
   ASSERT_EQ(::fcntl(command.fd(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_WRITE), 0);
   EXPECT_EQ(Failure([&] { device.lostIs(true); }), error("The resource file cannot be truncated"));
   EXPECT_FALSE(device.lost());
   EXPECT_EQ(Failure([&] { device.registerIs(4, 2); }),
             error("The resource file cannot be written"));
   EXPECT_EQ(device.registerAt(4), 1U);
}

TEST_F(PciDeviceTest, OneThatCannotBePutBackStaysLost) {
   PciDevice device(spec("values = { 4 = 1 }\n"));
   UnixFdRes file(::memfd_create("resource", MFD_CLOEXEC | MFD_ALLOW_SEALING));
   command = UnixFdRes(::dup(file.fd()));
   device.fileIs(std::move(file));
   device.lostIs(true);
   ASSERT_EQ(::fcntl(command.fd(), F_ADD_SEALS, F_SEAL_GROW), 0);
   EXPECT_EQ(Failure([&] { device.lostIs(false); }), error("The resource file cannot be restored"));
   EXPECT_TRUE(device.lost());
   EXPECT_EQ(device.registerAt(4), 1U) << "and nothing of it is gone";
}

TEST_F(PciDeviceTest, HasNoJournal) {
   PciDevice device(spec());
   const Failure none = error("Accesses to a PCI resource go past tarnsim: there is no journal");
   EXPECT_EQ(Failure([&] { static_cast<void>(device.journal()); }), none);
   EXPECT_EQ(Failure([&] { device.journalClear(); }), none);
}

} // namespace
} // namespace TarnSim
