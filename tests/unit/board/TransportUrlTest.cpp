#include "board/TransportUrl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "platform/hardware/PciHwAccessImpl.h"
#include "platform/hardware/SpiHwAccess.h"
#include "TarnRegFile/I2cSornTransportDescriptor.h"
#include "TarnRegFile/I2cTransportDescriptor.h"
#include "TarnRegFile/NimboSmbusTransportDescriptor.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/SpiTransportDescriptor.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Failure.h"
#include "tests/support/TempDir.h"

namespace {

using Board::TransportUrl;
using TestSupport::EnvironmentVariable;
using TestSupport::Failure;
using TestSupport::TempDir;

template <typename Kind>
Kind at(std::string_view text) {
   const TransportUrl url(text);
   EXPECT_EQ(url.text(), text);
   EXPECT_TRUE(std::holds_alternative<Kind>(url.where())) << text;
   return std::get<Kind>(url.where());
}

std::string reason(std::string_view text) {
   const Failure failure([&] { TransportUrl url(text); });
   EXPECT_EQ(failure.kind, "invalid argument") << text;
   return failure.text;
}

TEST(TransportUrl, WhatItDoesNotKnowIsRefusedWithAllThatThereIs) {
   for (const char* text : {"", "mock", "Mock:", "usb:1", ":", ":x", "mockx:", "mock :"}) {
      EXPECT_EQ(reason(text),
                std::string("transport '") + text +
                   "' is not known; there is mock:[VALUES-FILE], "
                   "pci:BUS:DEVICE.FUNCTION[/resourceN] or pci:PATH, "
                   "i2c:PATH@ADDRESS[?flavour=1|2], spi:PATH[?speed=HZ&mode=0..3], "
                   "smbus:BUS@ADDRESS[?flavour=1|2&controller=N"
                   "&pci=BUS:DEVICE.FUNCTION&socket=PATH], sorn:PATH@ADDRESS[?timeout=MS]");
   }
}

TEST(TransportUrl, AMocksPathIsEverythingBehindTheColon) {
   EXPECT_EQ(at<Board::MockAt>("mock:").valuesFile, "");
   EXPECT_EQ(at<Board::MockAt>("mock:/tmp/a:b?c@d").valuesFile, "/tmp/a:b?c@d");
}

TEST(TransportUrl, AMocksPathGoesBeforeTheEnvironment) {
   const EnvironmentVariable variable("REG_VALUES_FILE", "/from/environment");
   EXPECT_EQ(TransportUrl("mock:").valuesFile(), "/from/environment");
   EXPECT_EQ(TransportUrl("mock:/given").valuesFile(), "/given");
   EXPECT_EQ(TransportUrl("i2c:/dev/i2c-3@1").valuesFile(), "");
   TransportUrl("mock:").descriptor();
   EXPECT_STREQ(std::getenv("REG_VALUES_FILE"), "/from/environment");
   TransportUrl("mock:/given").descriptor();
   EXPECT_STREQ(std::getenv("REG_VALUES_FILE"), "/given");
}

TEST(TransportUrl, ARelativeValuesFileCountsFromTheDirectoryGiven) {
   const auto from = [](const char* text) {
      TransportUrl url(text);
      url.directoryIs("/etc/board");
      return url;
   };
   const EnvironmentVariable variable("REG_VALUES_FILE", std::nullopt);
   EXPECT_EQ(from("mock:v.csv").valuesFile(), "/etc/board/v.csv");
   EXPECT_EQ(from("mock:/v.csv").valuesFile(), "/v.csv");
   EXPECT_EQ(from("mock:").valuesFile(), "");
   EXPECT_EQ(std::get<Board::PciAt>(from("pci:./bar").where()).path, "./bar");
}

TEST(TransportUrl, APciDeviceMeansTheFileOfItsBar) {
   EXPECT_EQ(at<Board::PciAt>("pci:0000:03:00.0/resource2").path,
             "/sys/bus/pci/devices/0000:03:00.0/resource2");
   EXPECT_EQ(at<Board::PciAt>("pci:03:1f.7/resource0_wc").path,
             "/sys/bus/pci/devices/0000:03:1f.7/resource0_wc");
   EXPECT_EQ(at<Board::PciAt>("pci:aB:00.0").path, "/sys/bus/pci/devices/0000:ab:00.0/resource0")
      << "as the kernel names it";
   EXPECT_EQ(at<Board::PciAt>("pci:/tmp/bar?x").path, "/tmp/bar?x");
   EXPECT_EQ(at<Board::PciAt>("pci:./bar").path, "./bar");
}

TEST(TransportUrl, WhatIsNeitherPciDeviceNorPathIsRefused) {
   for (const char* rest : {"", "bar", "03:00", "03:00.8", "3:0.0", "/tmp/", "00000:03:00.0"}) {
      const std::string text = std::string("pci:") + rest;
      EXPECT_EQ(reason(text), "transport '" + text +
                                 "': neither a device nor the path of a file; the form is "
                                 "pci:BUS:DEVICE.FUNCTION[/resourceN] or pci:PATH");
   }
}

TEST(TransportUrl, APciDeviceHasSixResources) {
   for (const char* resource : {"", "resource", "resource6", "resource00", "config", "../x"}) {
      const std::string text = std::string("pci:03:00.0/") + resource;
      EXPECT_EQ(reason(text), "transport '" + text + "': '" + resource +
                                 "' is none of resource0 to resource5; the form is "
                                 "pci:BUS:DEVICE.FUNCTION[/resourceN] or pci:PATH");
   }
}

TEST(TransportUrl, AnI2cDeviceHasPathAddressAndFlavour) {
   const auto plain = at<Board::I2cAt>("i2c:/dev/i2c-3@0x50");
   EXPECT_EQ(plain.path, "/dev/i2c-3");
   EXPECT_EQ(plain.address, 0x50);
   EXPECT_EQ(plain.flavour, TarnRegFile::I2cFlavour::dataBlock);
   const auto word = at<Board::I2cAt>("i2c:/dev/a@b@127?flavour=2");
   EXPECT_EQ(word.path, "/dev/a@b");
   EXPECT_EQ(word.address, 127);
   EXPECT_EQ(word.flavour, TarnRegFile::I2cFlavour::dataWord);
}

TEST(TransportUrl, WhatIsWrongWithAnI2cDeviceIsSaid) {
   const auto why = [](const std::string& rest) {
      const std::string text = reason("i2c:" + rest);
      const std::string head = "transport 'i2c:" + rest + "': ";
      const std::string tail = "; the form is i2c:PATH@ADDRESS[?flavour=1|2]";
      EXPECT_TRUE(text.starts_with(head) && text.ends_with(tail)) << text;
      return text.substr(head.size(), text.size() - head.size() - tail.size());
   };
   EXPECT_EQ(why("/dev/i2c-3"), "no address");
   EXPECT_EQ(why(""), "no address");
   EXPECT_EQ(why("@3"), "no path");
   for (const char* address : {"", "0x80", "128", "-1", "0x", "x", "5 ", "99999999999", "0x5g"}) {
      EXPECT_EQ(why(std::string("p@") + address),
                std::string("address '") + address + "' is no number from 0 to 0x7f");
   }
   EXPECT_EQ(why("p@1?flavour=3"), "flavour '3' is no number from 1 to 2");
   EXPECT_EQ(why("p@1?flavour=0"), "flavour '0' is no number from 1 to 2");
   EXPECT_EQ(why("p@1?flavour="), "flavour '' is no number from 1 to 2");
   EXPECT_EQ(why("p@1?flavour"), "flavour '' is no number from 1 to 2");
   EXPECT_EQ(why("p@1?flavor=1"), "there is no option 'flavor'");
   EXPECT_EQ(why("p@1?"), "there is no option ''");
   EXPECT_EQ(why("p@1?flavour=1&"), "there is no option ''");
   EXPECT_EQ(why("p@1?flavour=1&flavour=1"), "option 'flavour' is given twice");
}

TEST(TransportUrl, AnSpiDeviceHasAPathAndSettings) {
   const auto plain = at<Board::SpiAt>("spi:/dev/spidev0.0").settings;
   EXPECT_EQ(plain.path, "/dev/spidev0.0");
   EXPECT_EQ(plain.maxSpeedHz, 0u);
   EXPECT_EQ(plain.mode, std::nullopt);
   const auto set = at<Board::SpiAt>("spi:/dev/spidev1.2?mode=3&speed=0x1000").settings;
   EXPECT_EQ(set.path, "/dev/spidev1.2");
   EXPECT_EQ(set.maxSpeedHz, 0x1000u);
   EXPECT_EQ(set.mode, 3);
   EXPECT_EQ(reason("spi:"),
             "transport 'spi:': no path; the form is spi:PATH[?speed=HZ&mode=0..3]");
   EXPECT_EQ(reason("spi:p?mode=4"), "transport 'spi:p?mode=4': mode '4' is no number from 0 to 3; "
                                     "the form is spi:PATH[?speed=HZ&mode=0..3]");
   EXPECT_EQ(reason("spi:p?speed=0"),
             "transport 'spi:p?speed=0': speed '0' is no number from 1 to 4294967295; the form is "
             "spi:PATH[?speed=HZ&mode=0..3]");
}

TEST(TransportUrl, ADeviceBehindTheAccessManagerHasPathAndAddressAndATimeOut) {
   const auto plain = at<Board::SornAt>("sorn:/dev/i2c-3@0x50");
   EXPECT_EQ(plain.path, "/dev/i2c-3");
   EXPECT_EQ(plain.address, 0x50);
   EXPECT_EQ(plain.timeout, 0u);
   EXPECT_EQ(at<Board::SornAt>("sorn:p@q@127?timeout=250").timeout, 250u);
   EXPECT_EQ(at<Board::SornAt>("sorn:p@q@127?timeout=250").path, "p@q");
   const std::string form = "; the form is sorn:PATH@ADDRESS[?timeout=MS]";
   EXPECT_EQ(reason("sorn:p"), "transport 'sorn:p': no address" + form);
   EXPECT_EQ(reason("sorn:@1"), "transport 'sorn:@1': no path" + form);
   EXPECT_EQ(reason("sorn:p@128"),
             "transport 'sorn:p@128': address '128' is no number from 0 to 0x7f" + form);
   EXPECT_EQ(reason("sorn:p@1?timeout=-1"),
             "transport 'sorn:p@1?timeout=-1': timeout '-1' is no number from 0 to 4294967295" +
                form);
   EXPECT_EQ(reason("sorn:p@1?flavour=1"),
             "transport 'sorn:p@1?flavour=1': there is no option 'flavour'" + form);
}

TEST(TransportUrl, TheAccessManagerOfThePlatformsHasTheDevice) {
   Board::Platforms platforms;
   const auto descriptor = Platform::ptrCast<TarnRegFile::I2cSornTransportDescriptor>(
      TransportUrl("sorn:/dev/i2c-none@0x50?timeout=250").descriptor(&platforms));
   ASSERT_TRUE(descriptor);
   EXPECT_EQ(descriptor->deviceId(), 0x50u);
   EXPECT_EQ(descriptor->sornDesc()->busName(), "/dev/i2c-none");
   EXPECT_EQ(descriptor->sornDesc()->timeout(), 250u);
   EXPECT_NE(TransportUrl("sorn:/dev/i2c-none@0x51").descriptor(&platforms), nullptr)
      << "on the same bus";
   EXPECT_THROW(TransportUrl("sorn:/dev/i2c-none@0x50").descriptor(), std::logic_error);
}

TEST(TransportUrl, AnSmbusDeviceHasBusAndAddressAndOptions) {
   const auto plain = at<Board::SmbusAt>("smbus:3@0x50");
   EXPECT_EQ(plain.busId, 3);
   EXPECT_EQ(plain.devAddr, 0x50);
   EXPECT_EQ(plain.accelId, 0);
   EXPECT_EQ(plain.flavour, TarnRegFile::TransportFlavour::nimboSmbusFlavour1);
   EXPECT_EQ(plain.pciAddr, std::nullopt);
   EXPECT_EQ(plain.socket, "");
   const auto all = at<Board::SmbusAt>("smbus:127@127?socket=/run/a@b:c?d&pci=1a2B:3c:1f.7"
                                       "&controller=255&flavour=2");
   EXPECT_EQ(all.busId, 127);
   EXPECT_EQ(all.devAddr, 127);
   EXPECT_EQ(all.accelId, 255);
   EXPECT_EQ(all.flavour, TarnRegFile::TransportFlavour::nimboSmbusFlavour2);
   EXPECT_EQ(all.pciAddr, (TarnRegFile::PciAddress{0x1a2b, 0x3c, 0x1f, 7}));
   EXPECT_EQ(all.socket, "/run/a@b:c?d");
   const auto low = at<Board::SmbusAt>("smbus:0@0?flavour=1&controller=0&pci=03:00.1");
   EXPECT_EQ(low.busId, 0);
   EXPECT_EQ(low.devAddr, 0);
   EXPECT_EQ(low.flavour, TarnRegFile::TransportFlavour::nimboSmbusFlavour1);
   EXPECT_EQ(low.pciAddr, (TarnRegFile::PciAddress{0, 3, 0, 1}));
}

TEST(TransportUrl, WhatIsWrongWithAnSmbusDeviceIsSaid) {
   const auto why = [](const std::string& rest) {
      const std::string text = reason("smbus:" + rest);
      const std::string head = "transport 'smbus:" + rest + "': ";
      const std::string tail = "; the form is smbus:BUS@ADDRESS[?flavour=1|2&controller=N"
                               "&pci=BUS:DEVICE.FUNCTION&socket=PATH]";
      EXPECT_TRUE(text.starts_with(head) && text.ends_with(tail)) << text;
      return text.substr(head.size(), text.size() - head.size() - tail.size());
   };
   EXPECT_EQ(why(""), "no address");
   EXPECT_EQ(why("3"), "no address");
   for (const char* bus : {"", "128", "0x80", "-1", "x", "/dev/i2c-3", "99999999999999999999"}) {
      EXPECT_EQ(why(std::string(bus) + "@1"),
                std::string("bus '") + bus + "' is no number from 0 to 127");
   }
   for (const char* address : {"", "0x80", "128", "-1", "1@2"}) {
      EXPECT_EQ(why(std::string("1@") + address),
                std::string("address '") + address + "' is no number from 0 to 0x7f");
   }
   EXPECT_EQ(why("1@1?flavour=0"), "flavour '0' is no number from 1 to 2");
   EXPECT_EQ(why("1@1?flavour=3"), "flavour '3' is no number from 1 to 2");
   EXPECT_EQ(why("1@1?controller=256"), "controller '256' is no number from 0 to 255");
   EXPECT_EQ(why("1@1?controller="), "controller '' is no number from 0 to 255");
   for (const char* pci : {"", "03:00", "03:00.8", "03:20.0", "0000:03:ff.0", "3:0.0",
                           "00000:03:00.0", "0000:0000:03:00.0"}) {
      EXPECT_EQ(why(std::string("1@1?pci=") + pci),
                std::string("pci '") + pci + "' is no PCI function");
   }
   for (const char* socket : {"", "/", "/run/"}) {
      EXPECT_EQ(why(std::string("1@1?socket=") + socket),
                std::string("socket '") + socket + "' is no path of a file");
   }
   EXPECT_EQ(why("1@1?bus=1"), "there is no option 'bus'");
   EXPECT_EQ(why("1@1?pci=03:00.0&pci=03:00.0"), "option 'pci' is given twice");
}

TEST(TransportUrl, AnSmbusDevicesSocketGoesBeforeTheEnvironment) {
   const EnvironmentVariable directory("NM_SOCKET_DIR", "/from");
   const EnvironmentVariable file("NM_SOCKET_FILE", "environment");
   const auto named = [](const char* text) {
      TransportUrl(text).descriptor();
      return std::string(std::getenv("NM_SOCKET_DIR")) + " " + std::getenv("NM_SOCKET_FILE");
   };
   EXPECT_EQ(named("smbus:1@1"), "/from environment");
   EXPECT_EQ(named("smbus:1@1?socket=/run/x/y"), "/run/x y");
   EXPECT_EQ(named("smbus:1@1?socket=y"), ". y");
   EXPECT_EQ(named("smbus:1@1?socket=/y"), " y") << "of the root directory";
   EXPECT_EQ(named("smbus:1@1?socket=x/y"), "x y");
}

TEST(TransportUrl, WhatOneDeviceIsPointedAtIsNotAnothers) {
   const EnvironmentVariable values("REG_VALUES_FILE", std::nullopt);
   const EnvironmentVariable directory("NM_SOCKET_DIR", "/from");
   const EnvironmentVariable file("NM_SOCKET_FILE", std::nullopt);
   Board::Platforms platforms;
   TransportUrl("mock:/given").descriptor(&platforms);
   EXPECT_STREQ(std::getenv("REG_VALUES_FILE"), "/given");
   TransportUrl("mock:").descriptor(&platforms);
   EXPECT_EQ(std::getenv("REG_VALUES_FILE"), nullptr);
   TransportUrl("smbus:1@1?socket=/run/x/y").descriptor(&platforms);
   EXPECT_STREQ(std::getenv("NM_SOCKET_FILE"), "y");
   TransportUrl("smbus:1@1").descriptor(&platforms);
   EXPECT_STREQ(std::getenv("NM_SOCKET_DIR"), "/from");
   EXPECT_EQ(std::getenv("NM_SOCKET_FILE"), nullptr);
}

TEST(TransportUrl, ARelativeSocketCountsFromTheDirectoryGiven) {
   const auto socket = [](const char* text) {
      TransportUrl url(text);
      url.directoryIs("/etc/board");
      return std::get<Board::SmbusAt>(url.where()).socket;
   };
   EXPECT_EQ(socket("smbus:1@1?socket=x/y"), "/etc/board/x/y");
   EXPECT_EQ(socket("smbus:1@1?socket=/x/y"), "/x/y");
   EXPECT_EQ(socket("smbus:1@1"), "") << "the environment's stays where it is";
}

TEST(TransportUrl, ASocketThatTheSystemCannotNameIsRefusedAndNotNamed) {
   const EnvironmentVariable directory("NM_SOCKET_DIR", "/from");
   const EnvironmentVariable file("NM_SOCKET_FILE", "environment");
   const auto failure = [](const std::string& path) {
      return Failure([&] { TransportUrl("smbus:1@1?socket=" + path).descriptor(); });
   };
   const auto tooLong = [](const std::string& path) {
      return Failure::generic(ENAMETOOLONG, "the path of a socket has 107 characters at most, '" +
                                               path + "' more");
   };
   const std::string path = "/" + std::string(107, 'x');
   EXPECT_EQ(failure(path), tooLong(path));
   EXPECT_EQ(failure(std::string(106, 'x')), tooLong(std::string(106, 'x'))) << "./ goes before it";
   EXPECT_STREQ(std::getenv("NM_SOCKET_DIR"), "/from");
   EXPECT_STREQ(std::getenv("NM_SOCKET_FILE"), "environment");
   EXPECT_EQ(failure(path.substr(0, 107)), Failure::none());
   EXPECT_EQ(failure(std::string(105, 'x')), Failure::none());
}

TEST(TransportUrl, ADescriptorIsOfTheKindThatTheTransportNeeds) {
   const EnvironmentVariable variable("REG_VALUES_FILE", std::nullopt);
   EXPECT_EQ(TransportUrl("mock:").descriptor()->transportType(),
             TarnRegFile::TransportType::mockBus);
   EXPECT_EQ(std::getenv("REG_VALUES_FILE"), nullptr);

   const auto i2c = Platform::ptrCast<TarnRegFile::I2cTransportDescriptor>(
      TransportUrl("i2c:/dev/i2c-3@0x50?flavour=2").descriptor());
   ASSERT_TRUE(i2c);
   EXPECT_EQ(i2c->devicePath(), "/dev/i2c-3");
   EXPECT_EQ(i2c->deviceAddress(), 0x50);
   EXPECT_EQ(i2c->transportFlavour(), TarnRegFile::TransportFlavour::i2cDevFlavour2);

   const auto spi = Platform::ptrCast<TarnRegFile::SpiTransportDescriptor>(
      TransportUrl("spi:/dev/spidev0.0").descriptor());
   ASSERT_TRUE(spi);
   EXPECT_EQ(spi->hwAccess()->name(), "/dev/spidev0.0");
   EXPECT_TRUE(spi->hwAccess()->ready());

   const auto smbus = Platform::ptrCast<TarnRegFile::NimboSmbusTransportDescriptor>(
      TransportUrl("smbus:3@0x50?flavour=2&controller=4&pci=01:02.3").descriptor());
   ASSERT_TRUE(smbus);
   EXPECT_EQ(smbus->transportFlavour(), TarnRegFile::TransportFlavour::nimboSmbusFlavour2);
   EXPECT_EQ(smbus->busId(), 3);
   EXPECT_EQ(smbus->devAddr(), 0x50);
   EXPECT_EQ(smbus->accelId(), 4);
   EXPECT_EQ(smbus->pciAddr(), (TarnRegFile::PciAddress{0, 1, 2, 3}));
   EXPECT_EQ(Platform::ptrCast<TarnRegFile::NimboSmbusTransportDescriptor>(
                TransportUrl("smbus:3@0x50").descriptor())
                ->transportFlavour(),
             TarnRegFile::TransportFlavour::nimboSmbusFlavour1);

   const TempDir dir;
   const std::string bar = dir.write("bar", std::string(16, '\0'));
   const auto pci = Platform::ptrCast<TarnRegFile::PciTransportDescriptor>(
      TransportUrl("pci:" + bar).descriptor());
   ASSERT_TRUE(pci);
   EXPECT_TRUE(pci->hwAccess()->ready());
   EXPECT_EQ(Failure([&] { TransportUrl("pci:" + dir.path("no")).descriptor(); }),
             Failure::system(ENOENT, "Error opening PCI register space " + dir.path("no")));
}

} // namespace
