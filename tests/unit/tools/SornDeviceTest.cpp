// The command on a device whose results arrive later: what it prints, in which order, and what it
// never prints.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "platform/hardware/SimulatedSornBackend.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/I2cTransportSornImpl.h"
#include "tests/support/GatedSornBackend.h"
#include "tests/support/TempDir.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/ReadAhead.h"
#include "tools/tarnreg/Verbs.h"

namespace {

using TarnReg::AccessError;
using TarnReg::Device;
using TarnReg::ExitCode;
using TarnReg::Pace;
using TarnReg::ReadAhead;
using TestSupport::GatedSornBackend;

constexpr const char* path = "/dev/i2c-7"; // not there: the access manager has it already
const std::string url = std::string("sorn:") + path + "@0x50";

class SornDeviceTest : public testing::Test {
protected:
   /// A device whose list has `lines`, on the bus of that backend.
   void open(const std::string& lines, std::unique_ptr<Hardware::SornBackend> backend,
             const std::string& at = url) {
      const std::string list = dir.write("list.csv", "number,name,type,writeable,width\n" + lines);
      platforms->sornManager().busNew(path, std::move(backend));
      device = std::make_unique<Device>(list, Board::TransportUrl(at), sink, platforms);
   }
   void openSimulated(const std::string& lines, const std::string& at = url) {
      wires->deviceIs(0x50, simulated);
      open(lines, std::make_unique<Hardware::SimulatedSornBackend>(wires), at);
   }
   void openGated(const std::string& lines, const std::string& at = url) {
      open(lines, std::make_unique<GatedSornBackend>(gate), at);
   }

   /// Runs a verb; out and err hold afterwards what it said.
   ExitCode run(const std::function<void(TarnReg::Report&, TarnReg::Console&)>& verb) {
      std::istringstream in;
      std::ostringstream data;
      std::ostringstream talk;
      TarnReg::Console console(in, data, talk, false);
      TarnReg::Report report(console, "verb", "registers", false, TarnReg::NumberBase::hex);
      try {
         verb(report, console);
      } catch (const TarnReg::Failure& failure) {
         report.failure(failure.code(), failure.what());
      }
      const ExitCode code = report.finish();
      out = data.str();
      err = talk.str();
      return code;
   }

   TestSupport::TempDir dir;
   std::shared_ptr<TarnReg::FailureSink> sink = std::make_shared<TarnReg::FailureSink>(nullptr);
   std::shared_ptr<Platform::Trace::Sink> previousSink = Platform::Trace::sinkIs(sink);
   std::shared_ptr<Hardware::SimulatedI2cBus> wires = std::make_shared<Hardware::SimulatedI2cBus>();
   std::shared_ptr<Hardware::SimulatedI2cDevice> simulated =
      std::make_shared<Hardware::SimulatedI2cDevice>(Hardware::SimulatedI2cKind::block);
   std::shared_ptr<GatedSornBackend::State> gate = std::make_shared<GatedSornBackend::State>();
   std::shared_ptr<Board::Platforms> platforms = std::make_shared<Board::Platforms>();
   std::unique_ptr<Device> device;
   std::string out;
   std::string err;

   ~SornDeviceTest() override {
      device.reset();
      platforms.reset();
      Platform::Trace::sinkIs(previousSink);
   }
};

const std::string lines = "4,A,status,true,32\n8,B,status,true,32\n12,H,status,true,16\n"
                          "16,C,status,true,8\n";

TEST_F(SornDeviceTest, ValuesArePrintedInTheOrderInWhichTheyAreAskedFor) {
   simulated->registerIs(4, 0xaaaa0001);
   simulated->registerIs(8, 0xffffffff);
   openSimulated(lines);
   EXPECT_EQ(run([&](auto& report, auto&) {
                TarnReg::readRegisters(*device, {"B", "A", "B", "A"}, report);
             }),
             ExitCode::ok);
   EXPECT_EQ(out, "B  0xffffffff\nA  0xaaaa0001\nB  0xffffffff\nA  0xaaaa0001\n");
   EXPECT_EQ(err, "");
}

TEST_F(SornDeviceTest, AFailedReadIsNoValueAndSaysStatusAndReason) {
   simulated->faults().add({.kind = Hardware::FaultKind::ioError, .first = 3, .count = 1});
   openSimulated(lines);
   EXPECT_EQ(run([&](auto& report, auto&) {
                TarnReg::readRegisters(*device, {"A", "B", "H"}, report);
             }),
             ExitCode::deviceError);
   EXPECT_EQ(out, "A  0x00000000\nH  0x0000\n");
   EXPECT_EQ(err, std::string("tarnreg: error: cannot read B: ") + path +
                     ": busError: Input/output error\n");
   simulated->faults().add({.kind = Hardware::FaultKind::nak});
   EXPECT_EQ(run([&](auto& report, auto& console) {
                TarnReg::writeRegisters(*device, {"A=1"}, {}, console, report);
             }),
             ExitCode::deviceError);
   EXPECT_EQ(out, "");
   EXPECT_EQ(err, std::string("tarnreg: error: cannot write A: ") + path +
                     ": noDevice: No such device or address\n");
}

TEST_F(SornDeviceTest, ABusThatTimesOutHasItsOwnCode) {
   simulated->faults().add({.kind = Hardware::FaultKind::timeout});
   openSimulated(lines);
   EXPECT_EQ(run([&](auto& report, auto&) { TarnReg::readRegisters(*device, {"A"}, report); }),
             ExitCode::timeout);
   EXPECT_EQ(err, std::string("tarnreg: error: cannot read A: ") + path +
                     ": timedOut: Connection timed out\n");
}

TEST_F(SornDeviceTest, AHungBusEndsAtTheTimeOutOfTheUrl) {
   gate->gateIs(false);
   openGated(lines, url + "?timeout=20");
   EXPECT_EQ(run([&](auto& report, auto&) { TarnReg::dumpRegisters(*device, {}, false, report); }),
             ExitCode::timeout);
   EXPECT_EQ(out, "");
   gate->gateIs(true);
}

TEST_F(SornDeviceTest, APollOverAHungBusEndsAtItsOwnTimeOut) {
   gate->gateIs(false);
   openGated(lines);
   EXPECT_EQ(run([&](auto& report, auto&) {
                TarnReg::pollRegisters(
                   *device, {"A=1"}, {std::chrono::milliseconds(1), std::chrono::milliseconds(20)},
                   Pace::real(), report);
             }),
             ExitCode::timeout);
   EXPECT_THAT(err, testing::HasSubstr(std::string("cannot read A: ") + path +
                                       ": timedOut: Connection timed out"));
   gate->gateIs(true);
}

TEST_F(SornDeviceTest, AShortWriteIsVerifiedWhereItWent) {
   openSimulated(lines);
   EXPECT_EQ(run([&](auto& report, auto& console) {
                TarnReg::writeRegisters(*device, {"H=0x1234", "C=0x56", "A=0x789abcde"},
                                        {.verify = true}, console, report);
             }),
             ExitCode::ok);
   EXPECT_EQ(err, "");
   EXPECT_EQ(simulated->registerAt(12), 0x12340000u);
   EXPECT_EQ(simulated->registerAt(16), 0x56u);
   EXPECT_EQ(run([&](auto& report, auto& console) {
                TarnReg::writeRegisters(*device, {"H=0x12345"}, {}, console, report);
             }),
             ExitCode::usage);
   EXPECT_EQ(run([&](auto& report, auto&) {
                TarnReg::pollRegisters(*device, {"H=0x12340000"}, {}, Pace::real(), report);
             }),
             ExitCode::ok)
      << "what is read is compared as it is read";
}

TEST_F(SornDeviceTest, ACallOfAnAccessWaitsForItsResult) {
   simulated->registerIs(4, 77);
   openSimulated(lines);
   EXPECT_EQ(
      run([&](auto& report, auto&) { TarnReg::callOperation(*device, "regRead", {"A"}, report); }),
      ExitCode::ok);
   EXPECT_EQ(out, "77\n");
   EXPECT_EQ(run([&](auto& report, auto&) {
                TarnReg::callOperation(*device, "regWrite", {"B", "78"}, report);
             }),
             ExitCode::ok);
   EXPECT_EQ(simulated->registerAt(8), 78u);
   EXPECT_EQ(
      run([&](auto& report, auto&) { TarnReg::callOperation(*device, "dumpAll", {}, report); }),
      ExitCode::deviceError);
   EXPECT_EQ(out, "");
   simulated->faults().add({.kind = Hardware::FaultKind::nak});
   EXPECT_EQ(
      run([&](auto& report, auto&) { TarnReg::callOperation(*device, "regRead", {"A"}, report); }),
      ExitCode::deviceError);
   EXPECT_EQ(out, "");
}

TEST_F(SornDeviceTest, ManyAreAskedForAheadButNoMoreThanThat) {
   std::string many;
   for (int i = 0; i < 3000; ++i) {
      many += std::to_string(4 * i) + ",R" + std::to_string(i) + ",status,true,32\n";
      simulated->registerIs(4U * i, 5U * i);
   }
   openSimulated(many);
   const auto* transport =
      dynamic_cast<TarnRegFile::I2cTransportSornImpl*>(device->method().implPtr());
   ASSERT_NE(transport, nullptr);
   const auto& registers = device->registers();
   ReadAhead values(*device, registers);
   for (std::uint32_t i = 0; i < 3000; ++i) {
      ASSERT_EQ(values.next(), 5 * i);
      ASSERT_LT(transport->sm()->i2cTransportRequests(), ReadAhead::most);
   }
}

TEST_F(SornDeviceTest, WithATimeOutNoneIsAskedForBeforeTheBusIsKnown) {
   gate->gateIs(false);
   openGated(lines);
   device->accessTimeoutIs(20);
   const auto& registers = device->registers();
   ReadAhead values(*device, registers);
   EXPECT_THROW(values.next(), AccessError);
   gate->gateIs(true);
   device->accessTimeoutIs(0);
   EXPECT_EQ(values.next(), 0u);
   EXPECT_EQ(gate->lines().at(0), "begin");
}

TEST_F(SornDeviceTest, WhatIsNotWaitedForIsNotTakenForAnother) {
   simulated->registerIs(4, 1);
   simulated->registerIs(8, 2);
   openSimulated(lines);
   {
      ReadAhead values(*device, device->registers());
      EXPECT_EQ(values.next(), 1u); // the others are in flight
   }
   simulated->registerIs(8, 3);
   EXPECT_EQ(device->read("A"), 1u);
   device->write("B", 4);
   EXPECT_EQ(device->read("B"), 4u);
}

TEST_F(SornDeviceTest, TwoDevicesOfOneBusAreCompared) {
   const auto other =
      std::make_shared<Hardware::SimulatedI2cDevice>(Hardware::SimulatedI2cKind::block);
   wires->deviceIs(0x51, other);
   simulated->registerIs(8, 3);
   openSimulated(lines);
   Device second(dir.path("list.csv"), Board::TransportUrl(std::string("sorn:") + path + "@0x51"),
                 sink, platforms);
   EXPECT_EQ(
      run([&](auto& report, auto&) { TarnReg::diffDevices(*device, second, {}, false, report); }),
      ExitCode::general);
   EXPECT_EQ(out, "B  0x00000003  0x00000000\n");
   EXPECT_EQ(err, "tarnreg: error: 1 of 4 registers differ\n");
}

} // namespace
