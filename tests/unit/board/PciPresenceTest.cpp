// What the system knows of a PCI device that answers no more.

#include "board/PciPresence.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/TempDir.h"

namespace {

using Board::pciIsThere;
using TestSupport::TempDir;

TEST(PciPresence, TheVendorTells) {
   const TempDir dir;
   dir.write("resource0", "");
   dir.write("config", std::string("\x86\x80", 2));
   EXPECT_EQ(pciIsThere(dir.path("resource0")), true);
   EXPECT_EQ(pciIsThere(dir.path("resource2_wc")), true);
   dir.write("config", std::string("\xff\x80", 2));
   EXPECT_EQ(pciIsThere(dir.path("resource0")), true);
   dir.write("config", std::string("\xff\xff", 2));
   EXPECT_EQ(pciIsThere(dir.path("resource0")), false);
}

TEST(PciPresence, ADeviceThatTheSystemHasForgottenIsNotThere) {
   const TempDir dir;
   EXPECT_EQ(pciIsThere(dir.path("resource0")), false);
}

TEST(PciPresence, OfAFileInPlaceOfADeviceNothingIsKnown) {
   const TempDir dir;
   dir.write("resource0", "");
   EXPECT_EQ(pciIsThere(dir.path("resource0")), std::nullopt) << "there is no configuration space";
   dir.write("registers.bin", "");
   dir.write("config", std::string("\xff\xff", 2));
   EXPECT_EQ(pciIsThere(dir.path("registers.bin")), std::nullopt) << "it is none of its";
   EXPECT_EQ(pciIsThere("resource0"), std::nullopt);
   dir.write("config", "");
   EXPECT_EQ(pciIsThere(dir.path("resource0")), std::nullopt) << "it says nothing";
   std::filesystem::remove(dir.path("config"));
   std::filesystem::create_directory(dir.path("config"));
   EXPECT_EQ(pciIsThere(dir.path("resource0")), std::nullopt);
}

} // namespace
