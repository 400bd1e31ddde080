#include "tools/tarnreg/ListOnlyDevice.h"

#include <gtest/gtest.h>

#include "TarnRegFile/RegisterFileHelper.h"
#include "tests/support/TempDir.h"
#include "tools/tarnreg/Failure.h"

namespace {

using TarnReg::listOnlyDevice;

const std::string list = "number,name,type,writeable,width\n3,A[0:1],control,true,8\n";

class ListOnlyDevice : public testing::Test {
protected:
   std::uint32_t addressBehind(const std::string& url) {
      return listOnlyDevice({file, Board::TransportUrl(url)})->find("A[1]")->address;
   }

   TestSupport::TempDir dir;
   std::string file = dir.write("list.csv", list);
};

TEST_F(ListOnlyDevice, HasTheAddressesThatTheOpenedDeviceHas) {
   const TarnReg::Device opened(file, Board::TransportUrl("mock:"),
                                std::make_shared<TarnReg::FailureSink>(nullptr));
   EXPECT_EQ(addressBehind("mock:"), opened.find("A[1]")->address);
   const std::string space = dir.write("space", std::string(64, '\0'));
   const TarnReg::Device mapped(file, Board::TransportUrl("pci:" + space),
                                std::make_shared<TarnReg::FailureSink>(nullptr));
   EXPECT_EQ(addressBehind("pci:" + space), mapped.find("A[1]")->address);
   for (const char* url : {"i2c:/none/x@0x50", "i2c:/none/x@0x50?flavour=2", "spi:/none/x",
                           "smbus:3@0x50", "sorn:/none/x@0x50"}) {
      EXPECT_EQ(addressBehind(url), 4U) << url;
   }
}

TEST_F(ListOnlyDevice, OfAListThatCannotBeUsedSaysWhich) {
   const auto failure = [&](const std::string& text) {
      try {
         listOnlyDevice("name", dir.write("bad.csv", text), 1);
      } catch (const TarnReg::Failure& error) {
         EXPECT_EQ(error.code(), TarnReg::ExitCode::general);
         return std::string(error.what());
      }
      return std::string("none");
   };
   const std::string path = dir.path("bad.csv");
   EXPECT_EQ(failure("no header\n"),
             path + ": Wrong CSV header: Invalid argument; tarnreg check says where");
   EXPECT_EQ(failure("number,name,type,writeable,width\n1,A[3:1],control,true,8\n"),
             path + ":2: the lower bound of a range is above the upper");
   try {
      listOnlyDevice("name", dir.path("gone.csv"), 1);
      FAIL();
   } catch (const TarnReg::Failure& error) {
      EXPECT_EQ(std::string(error.what()),
                "Error opening CSV file " + dir.path("gone.csv") + ": No such file or directory");
   }
}

} // namespace
