#include "TarnRegFile/NimboSmbusTransportMethodImpl.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/ImplFactoryMap.h"
#include "TarnRegFile/NimboSmbusTransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Failure.h"
#include "tests/support/FreshProcess.h"
#include "tests/support/RecordingAsyncHelper.h"
#include "tests/support/ScriptedNimbo.h"
#include "tests/support/SocketCalls.h"
#include "tests/support/TempDir.h"

namespace {

using TarnRegFile::NimboSmbusTransportDescriptor;
using TarnRegFile::NimboSmbusTransportMethodImpl;
using TarnRegFile::PciAddress;
using TarnRegFile::TransportFlavour;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using TestSupport::EnvironmentVariable;
using TestSupport::Failure;
using TestSupport::ScriptedNimbo;
using TestSupport::SocketCalls;
using Answer = ScriptedNimbo::Answer;
using Frame = ScriptedNimbo::Frame;

constexpr const char* list = "number,name,type,writeable,width\n"
                             "4660,R,led,true,32\n" // 0x1234
                             "4664,NARROW,led,true,1\n"
                             "0,ZERO,led,true,32\n"
                             "65535,LAST1,led,true,32\n"
                             "65536,FIRST2,led,true,32\n"
                             "74565,FIVE,led,true,32\n" // 0x12345
                             "16777215,LAST2,led,true,32\n"
                             "16777216,FIRST4,led,true,32\n"
                             "2147483647,FAR,led,true,32\n";

constexpr std::uint64_t oneByte = 1ULL << 57;
constexpr std::uint64_t twoBytes = 1ULL << 58;
constexpr std::uint64_t fourBytes = 1ULL << 59;

// Device 0x50 on bus 3.
constexpr std::uint64_t device = 0x50ULL << 32 | 3ULL << 39;

/// Lets tests see what is inside, and break it.
class OpenedUp : public NimboSmbusTransportMethodImpl {
public:
   using NimboSmbusTransportMethodImpl::NimboSmbusTransportMethodImpl;
   int fd() const { return nimboFd; }
   void fdIs(int fd) { nimboFd = fd; }
   void mastertypeIs(int type) { mastertype = type; }
};

/// What goes into a descriptor; device 0x50 on bus 3 unless a test says otherwise.
struct Where {
   TransportFlavour flavour = TransportFlavour::nimboSmbusFlavour1;
   std::uint8_t busId = 3;
   std::uint8_t devAddr = 0x50;
   std::uint8_t accelId = 0;
   std::optional<PciAddress> pciAddr;
};

/// Gives a signal another handler until the end of the scope.
class SignalHandler {
public:
   SignalHandler(int signal, void (*handler)(int))
      : _signal(signal), _previous(::signal(signal, handler)) {}
   ~SignalHandler() { ::signal(_signal, _previous); }
   SignalHandler(const SignalHandler&) = delete;
   SignalHandler& operator=(const SignalHandler&) = delete;

private:
   const int _signal;
   void (*const _previous)(int);
};

class NimboSmbusTransport : public testing::Test {
protected:
   std::unique_ptr<OpenedUp> make(const Where& where = {}) {
      const auto descriptor = Platform::make<NimboSmbusTransportDescriptor>(
         where.flavour, where.busId, where.devAddr, where.accelId, where.pciAddr);
      return std::make_unique<OpenedUp>(*descriptor, csv.c_str(), nullptr);
   }

   /// A transport whose making is not in the record of calls.
   std::unique_ptr<OpenedUp> made(const Where& where = {}) {
      auto transport = make(where);
      calls.clear();
      return transport;
   }

   /// The daemon answers every request with what `make` says of a good response.
   void responseIs(const std::function<void(Smbus::TransactionResponse&)>& change) {
      peer.scriptIs([change](const Frame& frame) -> Answer {
         Smbus::TransactionResponse response = ScriptedNimbo::response(frame.request);
         change(response);
         return {{ScriptedNimbo::frame(response)}};
      });
   }

   /// The daemon answers every request with these bytes.
   void bytesAre(const std::string& bytes, bool closes = false) {
      peer.scriptIs([=](const Frame&) -> Answer { return {{bytes}, closes}; });
   }

   Smbus::TransactionRequest lastRequest() const {
      const std::vector<Frame> frames = peer.frames();
      return frames.empty() ? Smbus::TransactionRequest() : frames.back().request;
   }

   /// Where the first request of a write to `name` goes.
   std::uint64_t addressOf(OpenedUp& transport, const char* name) {
      transport.regWrite(name, 0);
      return lastRequest().requests(0).address();
   }

   TestSupport::TempDir dir;
   std::string csv = dir.write("list.csv", list);
   const EnvironmentVariable directory{"NM_SOCKET_DIR", dir.path()};
   const EnvironmentVariable file{"NM_SOCKET_FILE", "daemon"};
   ScriptedNimbo peer{dir.path("daemon")};
   SocketCalls calls;
};

using NimboSmbusTransportDeathTest = NimboSmbusTransport;

std::string bytes(std::initializer_list<int> values) {
   std::string text;
   for (const int value : values) {
      text += static_cast<char>(value);
   }
   return text;
}

std::string varint(std::uint64_t value) {
   std::string text;
   for (; value >= 0x80; value >>= 7) {
      text += static_cast<char>(value | 0x80);
   }
   return text + static_cast<char>(value);
}

/// The path in a connect call's address.
std::string pathOf(const SocketCalls::Call& call) {
   return call.address.substr(offsetof(sockaddr_un, sun_path)).c_str();
}

// --- Construction

TEST_F(NimboSmbusTransport, TheListIsLoadedBeforeTheDaemonIsConnectedTo) {
   const auto descriptor = Platform::make<NimboSmbusTransportDescriptor>(
      TransportFlavour::nimboSmbusFlavour1, 3, 0x50, 0);
   EXPECT_EQ(Failure([&] { NimboSmbusTransportMethodImpl(*descriptor, "/no/list", nullptr); }),
             Failure::system(ENOENT, "Error opening CSV file /no/list"));
   EXPECT_EQ(Failure([&] { NimboSmbusTransportMethodImpl(*descriptor, "", nullptr); }),
             Failure::generic(EINVAL, "Must provide csvPath or regFileModel"));
   EXPECT_THAT(calls.order(), IsEmpty());
}

TEST_F(NimboSmbusTransport, ConnectsToAStreamSocketWithTheWholeOfTheAddress) {
   const auto transport = make();
   EXPECT_THAT(calls.order(), ElementsAre("socket", "connect"));
   const SocketCalls::Call socket = calls.calls()[0];
   EXPECT_EQ(socket.address, fmt::format("{} {} 0", AF_UNIX, int(SOCK_STREAM)));
   const SocketCalls::Call connect = calls.calls()[1];
   EXPECT_EQ(connect.fd, socket.result);
   EXPECT_EQ(connect.length, 110u);
   sockaddr_un expected{};
   expected.sun_family = AF_UNIX;
   dir.path("daemon").copy(expected.sun_path, sizeof(expected.sun_path) - 1);
   EXPECT_EQ(connect.address, std::string(reinterpret_cast<const char*>(&expected), 110))
      << "with zeros behind the path";
   EXPECT_EQ(transport->fd(), connect.fd);
   peer.connectionsAwait(1);
   EXPECT_THAT(peer.frames(), IsEmpty()) << "and sends nothing yet";
}

TEST_F(NimboSmbusTransport, TheEnvironmentNamesTheSocketAndDefaultsStandForWhatItDoesNot) {
   const auto connectsTo = [&](const std::optional<std::string>& directoryValue,
                               const std::optional<std::string>& fileValue) {
      const EnvironmentVariable one("NM_SOCKET_DIR", directoryValue);
      const EnvironmentVariable two("NM_SOCKET_FILE", fileValue);
      calls.clear();
      calls.errorsAre("connect", {ENOENT});
      EXPECT_THROW(make(), std::system_error);
      return pathOf(calls.calls().at(1));
   };
   EXPECT_EQ(connectsTo(std::nullopt, std::nullopt), "/var/run/platform/smbus");
   EXPECT_EQ(connectsTo(std::nullopt, "s2"), "/var/run/platform/s2");
   EXPECT_EQ(connectsTo("/tmp/d", std::nullopt), "/tmp/d/smbus");
   EXPECT_EQ(connectsTo("/tmp/d", "s2"), "/tmp/d/s2");
   EXPECT_EQ(connectsTo("/tmp/d/", "/s2"), "/tmp/d///s2") << "one slash, whatever is there";
   EXPECT_EQ(connectsTo("", ""), "/") << "empty is not unset";
   EXPECT_EQ(connectsTo("{}", "{0}"), "{}/{0}") << "the values are no formats";
}

TEST_F(NimboSmbusTransport, APathThatIsTooLongIsCutToOneHundredAndSevenCharacters) {
   for (const std::size_t length : {106u, 107u, 108u, 200u}) {
      const std::string given = "/" + std::string(length - 3, 'd') + "/f";
      const EnvironmentVariable one("NM_SOCKET_DIR", given.substr(0, given.size() - 2));
      const EnvironmentVariable two("NM_SOCKET_FILE", "f");
      Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=8");
      calls.clear();
      EXPECT_EQ(Failure([&] { make(); }),
                Failure::system(ENOENT, "Error connecting to Nimbo daemon"));
      const SocketCalls::Call connect = calls.calls().at(1);
      EXPECT_EQ(connect.length, 110u);
      EXPECT_EQ(connect.address.back(), '\0');
      EXPECT_EQ(pathOf(connect), given.substr(0, 107));
      EXPECT_THAT(trace.texts(),
                  ElementsAre("Connecting to Nimbo daemon at '" + given.substr(0, 107) + "'"));
   }
}

TEST_F(NimboSmbusTransport, ConnectingIsTraced) {
   Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=8");
   make();
   EXPECT_THAT(trace.texts(),
               ElementsAre("Connecting to Nimbo daemon at '" + dir.path("daemon") + "'",
                           "Successfully connected to Nimbo daemon"));
   for (const auto& record : trace.records()) {
      EXPECT_EQ(record.source, "TarnRegFile/NimboSmbusTransportMethodImpl");
      EXPECT_EQ(record.function, "nimboConnect");
      EXPECT_EQ(record.level, 8);
   }
}

TEST_F(NimboSmbusTransport, AFailureToConnectIsTracedAsFarAsItCame) {
   Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=9");
   calls.errorsAre("socket", {EMFILE});
   EXPECT_EQ(Failure([&] { make(); }), Failure::system(EMFILE, "Error connecting to Nimbo daemon"));
   EXPECT_THAT(calls.order(), ElementsAre(fmt::format("socket {}", EMFILE)))
      << "nothing is closed that was not opened";
   EXPECT_THAT(trace.texts(), IsEmpty());

   calls.errorsAre("connect", {EACCES});
   EXPECT_EQ(Failure([&] { make(); }), Failure::system(EACCES, "Error connecting to Nimbo daemon"));
   EXPECT_THAT(trace.texts(), ElementsAre(StartsWith("Connecting to Nimbo daemon at '")));
}

TEST_F(NimboSmbusTransport, AFailedConnectIsReportedAndItsSocketClosed) {
   for (const int error : {EACCES, EINTR, EAGAIN}) {
      calls.clear();
      calls.errorsAre("connect", {error});
      EXPECT_EQ(Failure([&] { make(); }),
                Failure::system(error, "Error connecting to Nimbo daemon"));
      EXPECT_THAT(calls.order(), ElementsAre("socket", fmt::format("connect {}", error), "close"))
         << "it is not tried again";
      EXPECT_EQ(calls.calls()[2].fd, calls.calls()[0].result);
   }
}

TEST_F(NimboSmbusTransport, ADaemonThatIsNotThereIsAFailure) {
   const EnvironmentVariable absent("NM_SOCKET_FILE", "absent");
   EXPECT_EQ(Failure([&] { make(); }), Failure::system(ENOENT, "Error connecting to Nimbo daemon"));
}

TEST_F(NimboSmbusTransport, ASocketThatNobodyListensAtRefuses) {
   const EnvironmentVariable stale("NM_SOCKET_FILE", "stale");
   { const ScriptedNimbo gone(dir.path("stale")); }
   EXPECT_EQ(Failure([&] { make(); }),
             Failure::system(ECONNREFUSED, "Error connecting to Nimbo daemon"));
}

TEST_F(NimboSmbusTransport, AnUnsupportedFlavourIsRefusedBehindAConnectionThatStaysOpen) {
   std::size_t connections = 0;
   for (int flavour : {0, 1, 2, 3, 6, 7, 8, 255}) {
      Where where;
      where.flavour = static_cast<TransportFlavour>(flavour);
      calls.clear();
      EXPECT_EQ(Failure([&] { make(where); }),
                Failure::generic(EINVAL, "Unsupported Nimbo flavour"))
         << flavour;
      EXPECT_THAT(calls.order(), ElementsAre("socket", "connect"));
      EXPECT_NE(::fcntl(calls.lastFd(), F_GETFD), -1);
      peer.connectionsAwait(++connections);
      EXPECT_EQ(peer.connections(), connections);
   }
   const EnvironmentVariable absent("NM_SOCKET_FILE", "absent");
   Where where;
   where.flavour = TransportFlavour::mockDefault;
   EXPECT_EQ(Failure([&] { make(where); }),
             Failure::system(ENOENT, "Error connecting to Nimbo daemon"))
      << "which is looked at first";
}

TEST_F(NimboSmbusTransport, ItsEndDoesNotCloseTheConnection) {
   auto transport = made();
   const int fd = transport->fd();
   transport->regRead("R");
   calls.clear();
   transport.reset();
   EXPECT_THAT(calls.order(), IsEmpty());
   EXPECT_NE(::fcntl(fd, F_GETFD), -1);
   EXPECT_EQ(peer.connections(), 1u);
}

TEST_F(NimboSmbusTransport, EachTransportHasAConnectionOfItsOwnThroughoutItsLife) {
   const auto one = make();
   const auto two = make();
   EXPECT_NE(one->fd(), two->fd());
   for (int i = 0; i < 3; ++i) {
      one->regRead("R");
      two->regWrite("R", 1);
   }
   EXPECT_EQ(peer.connections(), 2u);
}

TEST_F(NimboSmbusTransport, RegisterNumbersAreBusAddresses) {
   EXPECT_EQ(make()->regFileHelper()->findRegisterByName("R").address, 0x1234u);
}

// --- Frames

TEST_F(NimboSmbusTransport, AWriteIsOneRequestOfAddressByteAndValueMostSignificantByteFirst) {
   made()->regWrite("R", 0xDEADBEEF);
   ASSERT_EQ(peer.frames().size(), 1u);
   const Smbus::TransactionRequest transaction = lastRequest();
   ASSERT_EQ(transaction.requests_size(), 1);
   const Smbus::Request& request = transaction.requests(0);
   EXPECT_EQ(request.type(), Smbus::REQUEST_TYPE_WRITE);
   EXPECT_EQ(request.mastertype(), 2);
   EXPECT_EQ(request.address(), device | oneByte | 0x12);
   EXPECT_EQ(request.data(), bytes({0x34, 0xDE, 0xAD, 0xBE, 0xEF}));
   EXPECT_EQ(request.length(), 5u);
   EXPECT_EQ(request.pci_bdf(), 0u);
}

TEST_F(NimboSmbusTransport, AWriteIsTheseBytesOnTheWire) {
   Where where;
   where.flavour = TransportFlavour::nimboSmbusFlavour2;
   where.pciAddr = PciAddress{0, 0, 0x1f, 4};
   made(where)->regWrite("R", 0xDEADBEEF);
   const Frame frame = peer.frames().at(0);
   const std::string request = bytes({0x08, 1, 0x10, 1, 0x18}) + varint(device | oneByte | 0x12) +
                               bytes({0x22, 5, 0x34, 0xDE, 0xAD, 0xBE, 0xEF, 0x28, 5, 0x30}) +
                               varint(0x1f << 3 | 4);
   const std::string payload = bytes({0x08}) + varint(frame.request.xid()) + bytes({0x12}) +
                               varint(request.size()) + request;
   EXPECT_EQ(frame.payload, payload);
   EXPECT_EQ(frame.header, bytes({1, static_cast<int>(payload.size()), 0, 0}));
}

TEST_F(NimboSmbusTransport, AReadIsTheAddressWrittenAndThenFourBytesReadInOneTransaction) {
   EXPECT_EQ(made()->regRead("R"), 0x01020304u);
   ASSERT_EQ(peer.frames().size(), 1u);
   const Smbus::TransactionRequest transaction = lastRequest();
   ASSERT_EQ(transaction.requests_size(), 2);
   const Smbus::Request& write = transaction.requests(0);
   EXPECT_EQ(write.type(), Smbus::REQUEST_TYPE_WRITE);
   EXPECT_EQ(write.mastertype(), 2);
   EXPECT_EQ(write.address(), device | oneByte | 0x12);
   EXPECT_EQ(write.data(), "\x34");
   EXPECT_EQ(write.length(), 1u);
   EXPECT_EQ(write.pci_bdf(), 0u);
   const Smbus::Request& read = transaction.requests(1);
   EXPECT_EQ(read.type(), Smbus::REQUEST_TYPE_READ);
   EXPECT_EQ(read.mastertype(), 2);
   EXPECT_EQ(read.address(), device | oneByte) << "at offset 0";
   EXPECT_EQ(read.data(), "");
   EXPECT_EQ(read.length(), 4u);
   EXPECT_EQ(read.pci_bdf(), 0u);
}

TEST_F(NimboSmbusTransport, AReadIsTheseBytesOnTheWire) {
   Where where;
   where.pciAddr = PciAddress{1, 2, 3, 4};
   made(where)->regRead("FIVE");
   const Frame frame = peer.frames().at(0);
   const std::string bdf = bytes({0x30}) + varint(1 << 16 | 2 << 8 | 3 << 3 | 4);
   const std::string write = bytes({0x08, 1, 0x10, 2, 0x18}) + varint(device | twoBytes | 0x123) +
                             bytes({0x22, 1, 0x45, 0x28, 1}) + bdf;
   const std::string read =
      bytes({0x10, 2, 0x18}) + varint(device | oneByte) + bytes({0x28, 4}) + bdf;
   const std::string payload = bytes({0x08}) + varint(frame.request.xid()) + bytes({0x12}) +
                               varint(write.size()) + write + bytes({0x12}) + varint(read.size()) +
                               read;
   EXPECT_EQ(frame.payload, payload);
   EXPECT_EQ(frame.header, bytes({1, static_cast<int>(payload.size()), 0, 0}));
}

TEST_F(NimboSmbusTransport, FlavoursDifferInTheMasterTypeOnly) {
   for (const auto& [flavour, type] : {std::pair(TransportFlavour::nimboSmbusFlavour1, 2),
                                       std::pair(TransportFlavour::nimboSmbusFlavour2, 1)}) {
      Where where;
      where.flavour = flavour;
      const auto transport = made(where);
      EXPECT_EQ(transport->regRead("R"), 0x01020304u);
      EXPECT_EQ(lastRequest().requests(0).mastertype(), type);
      EXPECT_EQ(lastRequest().requests(1).mastertype(), type);
      transport->regWrite("R", 0xDEADBEEF);
      EXPECT_EQ(lastRequest().requests(0).mastertype(), type);
      EXPECT_EQ(lastRequest().requests(0).data(), bytes({0x34, 0xDE, 0xAD, 0xBE, 0xEF}));
   }
}

TEST_F(NimboSmbusTransport, TheSizeBitFollowsFromTheOffset) {
   const auto transport = made();
   EXPECT_EQ(addressOf(*transport, "ZERO"), device | oneByte);
   EXPECT_EQ(addressOf(*transport, "LAST1"), device | oneByte | 0xFF);
   EXPECT_EQ(addressOf(*transport, "FIRST2"), device | twoBytes | 0x100);
   EXPECT_EQ(addressOf(*transport, "FIVE"), device | twoBytes | 0x123);
   EXPECT_EQ(addressOf(*transport, "LAST2"), device | twoBytes | 0xFFFF);
   EXPECT_EQ(addressOf(*transport, "FIRST4"), device | fourBytes | 0x10000);
   EXPECT_EQ(addressOf(*transport, "FAR"), device | fourBytes | 0x7FFFFF);
   for (const char* name : {"LAST1", "FIRST2", "FIRST4", "FAR"}) {
      const std::uint64_t written = addressOf(*transport, name);
      transport->regRead(name);
      EXPECT_EQ(lastRequest().requests(0).address(), written) << name;
      EXPECT_EQ(lastRequest().requests(1).address(), device | oneByte)
         << "what is read from is the pointer that was written";
   }
}

TEST_F(NimboSmbusTransport, AModelsHighestAddressHasAnOffsetOfThreeBytes) {
   const auto model = Hardware::hardwareRegisterFileFactory("m");
   TarnRegFile::HardwareRegister record;
   record.name = "TOP";
   record.address = 0xFFFFFFFF;
   record.width = 32;
   model->nameToRegMapIs(record.name, record);
   const auto descriptor = TarnRegFile::nimboSmbusTransportDescriptorFactory(
      3, 0x50, 0, TransportFlavour::nimboSmbusFlavour1);
   OpenedUp transport(*descriptor, "", model);
   EXPECT_EQ(addressOf(transport, "TOP"), device | fourBytes | 0xFFFFFF);
   EXPECT_EQ(lastRequest().requests(0).data(), bytes({0xFF, 0, 0, 0, 0}));
}

TEST_F(NimboSmbusTransport, BusDeviceAndControllerHaveTheirPlacesInTheAddress) {
   const auto address = [&](std::uint8_t bus, std::uint8_t dev, std::uint8_t accel) {
      Where where;
      where.busId = bus;
      where.devAddr = dev;
      where.accelId = accel;
      return addressOf(*make(where), "ZERO") & ~oneByte;
   };
   EXPECT_EQ(address(0, 0, 0), 0u);
   EXPECT_EQ(address(0, 1, 0), 1ULL << 32);
   EXPECT_EQ(address(0, 0x7F, 0), 0x7FULL << 32);
   EXPECT_EQ(address(1, 0, 0), 1ULL << 39);
   EXPECT_EQ(address(0x7F, 0, 0), 0x7FULL << 39);
   EXPECT_EQ(address(0, 0, 1), 1ULL << 46);
   EXPECT_EQ(address(0, 0, 0xFF), 0xFFULL << 46);
}

TEST_F(NimboSmbusTransport, WhatIsWiderThanItsPlaceRunsIntoTheNextOne) {
   const auto address = [&](std::uint8_t bus, std::uint8_t dev, std::uint8_t accel) {
      Where where;
      where.busId = bus;
      where.devAddr = dev;
      where.accelId = accel;
      return addressOf(*make(where), "ZERO") & ~oneByte;
   };
   EXPECT_EQ(address(0, 0x80, 0), 1ULL << 39) << "device 0x80 is bus 1";
   EXPECT_EQ(address(2, 0xFF, 0), 3ULL << 39 | 0x7FULL << 32);
   EXPECT_EQ(address(1, 0xFF, 0), 1ULL << 39 | 0x7FULL << 32) << "by or, not by addition";
   EXPECT_EQ(address(0x80, 0, 0), 1ULL << 46) << "bus 0x80 is controller 1";
   EXPECT_EQ(address(0xFF, 0xFF, 0xFE), 0xFFULL << 46 | 0x7FULL << 39 | 0x7FULL << 32);
}

TEST_F(NimboSmbusTransport, ThePciFunctionIsPutTogetherFromWhatFitsOfItsParts) {
   const auto bdf = [&](const std::optional<PciAddress>& pci) {
      Where where;
      where.pciAddr = pci;
      const auto transport = make(where);
      transport->regRead("R");
      const Smbus::TransactionRequest transaction = lastRequest();
      EXPECT_EQ(transaction.requests(0).pci_bdf(), transaction.requests(1).pci_bdf());
      transport->regWrite("R", 0);
      EXPECT_EQ(lastRequest().requests(0).pci_bdf(), transaction.requests(0).pci_bdf());
      return transaction.requests(0).pci_bdf();
   };
   EXPECT_EQ(bdf(std::nullopt), 0u);
   EXPECT_EQ(bdf(PciAddress{}), 0u);
   EXPECT_EQ(bdf(PciAddress{0x1234, 0x56, 0x1f, 7}), 0x123456FFu);
   EXPECT_EQ(bdf(PciAddress{0, 0, 0, 1}), 1u);
   EXPECT_EQ(bdf(PciAddress{0, 0, 1, 0}), 8u);
   EXPECT_EQ(bdf(PciAddress{0, 1, 0, 0}), 0x100u);
   EXPECT_EQ(bdf(PciAddress{1, 0, 0, 0}), 0x10000u);
   EXPECT_EQ(bdf(PciAddress{0xFFFF, 0, 0, 0}), 0xFFFF0000u);
   EXPECT_EQ(bdf(PciAddress{0, 0x1FF, 0, 0}), 0xFF00u) << "the bus stays out of the domain";
   EXPECT_EQ(bdf(PciAddress{0, 0, 0x3F, 0}), 0xF8u) << "the device stays out of the bus";
   EXPECT_EQ(bdf(PciAddress{0, 0, 0, 0xFF}), 7u) << "the function stays out of the device";
}

TEST_F(NimboSmbusTransport, AnUnknownRegisterSendsNothing) {
   const auto transport = made();
   EXPECT_EQ(Failure([&] { transport->regRead("NOPE"); }),
             Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'"));
   EXPECT_EQ(Failure([&] { transport->regWrite("NOPE", 1); }),
             Failure::generic(ENOENT, "RegisterFile does not have register 'NOPE'"));
   EXPECT_THAT(calls.order(), IsEmpty());
   EXPECT_THAT(peer.frames(), IsEmpty());
}

TEST_F(NimboSmbusTransport, WidthsMaskNothing) {
   const auto transport = made();
   responseIs([](auto& response) {
      if (response.responses_size() == 2) {
         response.mutable_responses(1)->set_data(bytes({0xFF, 0xEE, 0xDD, 0xCC}));
      }
   });
   EXPECT_EQ(transport->regRead("NARROW"), 0xFFEEDDCCu);
   transport->regWrite("NARROW", 0xFFEEDDCC);
   EXPECT_EQ(lastRequest().requests(0).data(), bytes({0x38, 0xFF, 0xEE, 0xDD, 0xCC}));
}

TEST_F(NimboSmbusTransport, EveryByteValueComesThrough) {
   const auto transport = made();
   responseIs([](auto& response) {
      response.mutable_responses(1)->set_data(bytes({0x00, 0x80, 0x7F, 0xFF}));
   });
   EXPECT_EQ(transport->regRead("R"), 0x00807FFFu);
}

TEST_F(NimboSmbusTransportDeathTest, AnImpossibleMasterTypeStopsTheProcessBeforeAnythingIsSent) {
   const auto transport = made();
   transport->mastertypeIs(3);
   EXPECT_DEATH(transport->regRead("R"), "TarnRegFile/NimboSmbusTransportMethodImpl: .*assertion "
                                         "failed: ::Smbus::MasterType_IsValid\\(value\\)");
   EXPECT_DEATH(transport->regWrite("R", 0), "MasterType_IsValid");
   EXPECT_THAT(peer.frames(), IsEmpty());
}

// --- Transaction ids

TEST_F(NimboSmbusTransport, IdsAreAllOfOneSequenceWhateverTheObjectAndThread) {
   const auto one = make();
   const auto two = make();
   one->regRead("R");
   std::thread other([&] {
      for (int i = 0; i < 50; ++i) {
         two->regRead("R");
      }
   });
   for (int i = 0; i < 50; ++i) {
      one->regWrite("R", 1);
   }
   other.join();
   std::set<std::uint64_t> ids;
   for (const Frame& frame : peer.frames()) {
      EXPECT_GE(frame.request.xid(), 1u);
      EXPECT_LE(frame.request.xid(), 0x7FFFFFFFu);
      ids.insert(frame.request.xid());
   }
   ASSERT_EQ(ids.size(), 101u);
   // A number drawn from 1 to 0x7FFFFFFF is one state of the generator, as the standard library
   // draws, a few states behind the one before.
   std::uint64_t state = peer.frames()[0].request.xid();
   ids.erase(state);
   for (int i = 0; i < 101 * 100 && !ids.empty(); ++i) {
      state = state * 16807 % 2147483647;
      ids.erase(state);
   }
   EXPECT_THAT(ids, IsEmpty());
}

TEST_F(NimboSmbusTransport, AnIdIsUsedForOneTransactionOnly) {
   const auto transport = make();
   transport->regRead("R");
   transport->regRead("R");
   const std::vector<Frame> frames = peer.frames();
   EXPECT_NE(frames[0].request.xid(), frames[1].request.xid());
   responseIs([](auto& response) { response.set_failed(true); });
   EXPECT_THROW(transport->regRead("R"), std::system_error);
   EXPECT_NE(peer.frames()[2].request.xid(), frames[1].request.xid());
}

TEST(NimboSmbusTransportProcess, HasIdsOfItsOwn) {
   // The processes begin anew with this test, and find the file by the environment.
   const TestSupport::TempDir dir;
   const char* given = std::getenv("TARN_TEST_IDS");
   const EnvironmentVariable ids("TARN_TEST_IDS", given ? given : dir.path("ids"));
   for (int i = 0; i < 2; ++i) {
      EXPECT_IN_A_FRESH_PROCESS([] {
         const TestSupport::TempDir own;
         const EnvironmentVariable directory("NM_SOCKET_DIR", own.path());
         const EnvironmentVariable file("NM_SOCKET_FILE", std::nullopt);
         ScriptedNimbo peer(own.path("smbus"));
         const auto descriptor = TarnRegFile::nimboSmbusTransportDescriptorFactory(
            3, 0x50, 0, TransportFlavour::nimboSmbusFlavour1);
         const std::string csv = own.write("list.csv", list);
         NimboSmbusTransportMethodImpl(*descriptor, csv.c_str(), nullptr).regRead("R");
         std::ofstream(std::getenv("TARN_TEST_IDS"), std::ios::app)
            << peer.frames().at(0).request.xid() << '\n';
      });
   }
   std::ifstream in(std::getenv("TARN_TEST_IDS"));
   std::uint64_t one = 0;
   std::uint64_t other = 0;
   in >> one >> other;
   EXPECT_NE(one, 0u);
   EXPECT_NE(other, 0u);
   EXPECT_NE(one, other);
}

// --- Sending

TEST_F(NimboSmbusTransport, ATransactionIsASendAnFsyncAndTwoReceives) {
   const auto transport = made();
   transport->regRead("R");
   const auto made = calls.calls();
   EXPECT_THAT(calls.order(), ElementsAre("send", fmt::format("fsync {}", EINVAL), "recv", "recv"));
   const Frame frame = peer.frames().at(0);
   EXPECT_EQ(made[0].length, 4 + frame.payload.size()) << "header and payload in one";
   EXPECT_EQ(made[2].length, 4u);
   for (const auto& call : made) {
      EXPECT_EQ(call.fd, transport->fd());
      EXPECT_EQ(call.flags, 0);
   }
}

TEST_F(NimboSmbusTransport, ATransactionIsTracedStepByStep) {
   const auto transport = made();
   {
      Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=8");
      transport->regRead("R");
      EXPECT_THAT(trace.texts(), IsEmpty());
   }
   peer.clear();
   Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=9");
   std::vector<std::vector<std::string>> seen;
   calls.onCall = [&](const SocketCalls::Call& call) {
      auto texts = trace.texts();
      texts.push_back(call.name);
      seen.push_back(std::move(texts));
   };
   transport->regRead("R");
   calls.onCall = nullptr;
   const std::string sending =
      fmt::format("Sending to Nimbo daemon ({} bytes)", 4 + peer.frames().at(0).payload.size());
   const std::string header = "Receiving Nimbo's protobuf header";
   const std::string reply =
      fmt::format("Receiving Nimbo daemon's reply ({} bytes)",
                  ScriptedNimbo::response(lastRequest()).SerializeAsString().size());
   EXPECT_THAT(seen, ElementsAre(ElementsAre(sending, "send"), ElementsAre(sending, "fsync"),
                                 ElementsAre(sending, header, "recv"),
                                 ElementsAre(sending, header, reply, "recv")));
   EXPECT_THAT(trace.texts(), ElementsAre(sending, header, reply));
   for (const auto& record : trace.records()) {
      EXPECT_EQ(record.source, "TarnRegFile/NimboSmbusTransportMethodImpl");
      EXPECT_EQ(record.function, "doNimboTransaction");
      EXPECT_EQ(record.level, 9);
   }
}

TEST_F(NimboSmbusTransport, AFrameThatGoesOutInPiecesIsSentToItsEnd) {
   const auto transport = made();
   calls.mostAtOnceIs(1);
   transport->regWrite("R", 0xDEADBEEF);
   const Frame frame = peer.frames().at(0);
   EXPECT_EQ(frame.request.requests(0).data(), bytes({0x34, 0xDE, 0xAD, 0xBE, 0xEF}));
   const std::size_t size = 4 + frame.payload.size();
   const auto made = calls.calls();
   for (std::size_t i = 0; i < size; ++i) {
      EXPECT_EQ(made.at(i).name, "send");
      EXPECT_EQ(made.at(i).length, size - i) << "each asks for all that is left";
   }
   EXPECT_EQ(made.at(size).name, "fsync") << "once, behind the last";
   EXPECT_EQ(made.at(size + 1).name, "recv");
}

TEST_F(NimboSmbusTransport, SendingAndReceivingAreRepeatedWhileInterruptedOrBusy) {
   const auto transport = made();
   calls.errorsAre("send", {EINTR, EAGAIN, EINTR});
   calls.errorsAre("recv", {EAGAIN, EINTR, 0, EINTR, EAGAIN});
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
   EXPECT_THAT(calls.order(),
               ElementsAre("send 4", "send 11", "send 4", "send", "fsync 22", "recv 11", "recv 4",
                           "recv", "recv 4", "recv 11", "recv"));
   EXPECT_EQ(peer.frames().size(), 1u);
}

TEST_F(NimboSmbusTransport, AFailedSendIsReportedBehindAnFsyncWithTheSendsErrno) {
   const auto transport = made();
   Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=9");
   calls.errorsAre("send", {ENOBUFS});
   EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }),
             Failure::system(ENOBUFS, "Error sending message to Nimbo daemon"));
   EXPECT_THAT(calls.order(), ElementsAre(fmt::format("send {}", ENOBUFS), "fsync 22"))
      << "nothing is received";
   EXPECT_EQ(trace.texts().size(), 1u);
   EXPECT_THAT(peer.frames(), IsEmpty());

   EXPECT_EQ(transport->regRead("R"), 0x01020304u) << "the connection is as it was";
}

TEST_F(NimboSmbusTransport, AFrameThatWentOutInPartIsNotTakenBack) {
   const auto transport = made();
   calls.mostAtOnceIs(3);
   calls.errorsAre("send", {0, ENOBUFS});
   EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }),
             Failure::system(ENOBUFS, "Error sending message to Nimbo daemon"));
   EXPECT_THAT(calls.order(), ElementsAre("send", fmt::format("send {}", ENOBUFS), "fsync 22"));
   EXPECT_NE(::fcntl(transport->fd(), F_GETFD), -1);
}

TEST_F(NimboSmbusTransport, ADaemonThatHasGoneIsAFailedSendForAProgramThatIgnoresTheSignal) {
   const SignalHandler ignored(SIGPIPE, SIG_IGN);
   const auto transport = made();
   peer.connectionsAwait(1);
   peer.disconnect();
   for (int i = 0; i < 2; ++i) {
      calls.clear();
      EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
                Failure::system(EPIPE, "Error sending message to Nimbo daemon"));
      EXPECT_THAT(calls.order(), ElementsAre("send 32", "fsync 22"))
         << "there is no connecting anew";
   }
}

TEST(NimboSmbusTransportProcess, ADaemonThatHasGoneKillsAProgramThatDoesNotIgnoreTheSignal) {
   EXPECT_KILLED_BY(SIGPIPE, [] {
      const TestSupport::TempDir dir;
      const EnvironmentVariable directory("NM_SOCKET_DIR", dir.path());
      const EnvironmentVariable file("NM_SOCKET_FILE", std::nullopt);
      ::signal(SIGPIPE, SIG_DFL);
      ScriptedNimbo peer(dir.path("smbus"));
      const std::string csv = dir.write("list.csv", list);
      const auto descriptor = TarnRegFile::nimboSmbusTransportDescriptorFactory(
         3, 0x50, 0, TransportFlavour::nimboSmbusFlavour1);
      NimboSmbusTransportMethodImpl transport(*descriptor, csv.c_str(), nullptr);
      peer.connectionsAwait(1);
      peer.disconnect();
      transport.regRead("R");
   });
}

// --- Receiving

TEST_F(NimboSmbusTransport, AReplyThatComesByteByByteIsPutTogether) {
   const auto transport = made();
   calls.mostAtOnceIs(1);
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
   calls.mostAtOnceIs(SIZE_MAX);
   peer.scriptIs([](const Frame& frame) -> Answer {
      Answer answer;
      for (const char byte : ScriptedNimbo::frame(ScriptedNimbo::response(frame.request))) {
         answer.pieces.emplace_back(1, byte);
      }
      return answer;
   });
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
}

TEST_F(NimboSmbusTransport, AReceiveAsksForWhatIsLeftAndNoMore) {
   const auto transport = made();
   calls.mostAtOnceIs(3);
   transport->regWrite("R", 1);
   std::vector<std::size_t> asked;
   for (const auto& call : calls.calls()) {
      if (call.name == "recv") {
         asked.push_back(call.length);
      }
   }
   ASSERT_GE(asked.size(), 4u);
   const std::size_t length = ScriptedNimbo::response(lastRequest()).SerializeAsString().size();
   EXPECT_EQ(asked[0], 4u);
   EXPECT_EQ(asked[1], 1u);
   EXPECT_EQ(asked[2], length);
   EXPECT_EQ(asked[3], length - 3);
}

TEST_F(NimboSmbusTransport, ASecondReplyInThePieceOfTheFirstIsTheNextCalls) {
   const auto transport = made();
   int requests = 0;
   peer.scriptIs([&](const Frame& frame) -> Answer {
      Smbus::TransactionResponse good = ScriptedNimbo::response(frame.request);
      Smbus::TransactionResponse more;
      more.set_xid(frame.request.xid());
      return {{++requests == 1 ? ScriptedNimbo::frame(good) + ScriptedNimbo::frame(more)
                               : ScriptedNimbo::frame(good)}};
   });
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
             Failure::generic(EINVAL, "Invalid XID received"))
      << "it has the id of the first";
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
             Failure::generic(EINVAL, "Invalid XID received"))
      << "and all that follow are one behind";
}

TEST_F(NimboSmbusTransport, AReplyOfAnotherKindIsRefusedBeforeItsPayloadIsReceived) {
   const auto transport = made();
   for (const int kind : {0, 1, 3, 0x82, 255}) {
      peer.scriptIs([kind](const Frame&) -> Answer {
         return {{ScriptedNimbo::frame(static_cast<std::uint8_t>(kind), 0, "")}};
      });
      calls.clear();
      EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
                Failure::generic(EINVAL, "Received invalid response from Nimbo daemon"))
         << kind;
      EXPECT_THAT(calls.order(), ElementsAre("send", "fsync 22", "recv"));
   }
   peer.scriptIs([](const Frame& frame) -> Answer {
      const std::string payload = ScriptedNimbo::response(frame.request).SerializeAsString();
      return {{ScriptedNimbo::frame(1, static_cast<std::uint32_t>(payload.size()), payload)}};
   });
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
             Failure::generic(EINVAL, "Received invalid response from Nimbo daemon"));
}

TEST_F(NimboSmbusTransport, AReplyWithAnotherIdIsRefusedHoweverGoodItsData) {
   const auto transport = made();
   for (const std::uint64_t change : {1ULL, 1ULL << 32, 1ULL << 63}) {
      responseIs([change](auto& response) { response.set_xid(response.xid() ^ change); });
      EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
                Failure::generic(EINVAL, "Invalid XID received"));
      EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }),
                Failure::generic(EINVAL, "Invalid XID received"));
   }
   responseIs([](auto& response) {
      response.set_xid(0);
      response.set_failed(true);
   });
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
             Failure::generic(EINVAL, "Invalid XID received"))
      << "before the failure flag";
}

TEST_F(NimboSmbusTransport, AnEmptyOrDamagedReplyIsOneWithAnotherId) {
   const auto transport = made();
   for (const std::string& payload :
        {std::string(), std::string(100, '\xff'), bytes({0x08}), bytes({0x12, 0x7f, 1})}) {
      bytesAre(ScriptedNimbo::frame(2, static_cast<std::uint32_t>(payload.size()), payload));
      EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
                Failure::generic(EINVAL, "Invalid XID received"));
   }
}

TEST_F(NimboSmbusTransport, OfADamagedReplyWhatStandsBeforeTheDamageCounts) {
   const auto transport = made();
   const auto damaged = [&](const std::string& tail) {
      peer.scriptIs([tail](const Frame& frame) -> Answer {
         const std::string payload =
            ScriptedNimbo::response(frame.request).SerializeAsString() + tail;
         return {{ScriptedNimbo::frame(2, static_cast<std::uint32_t>(payload.size()), payload)}};
      });
   };
   damaged(std::string(20, '\xff'));
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
   damaged(bytes({0x78, 1}));
   EXPECT_EQ(transport->regRead("R"), 0x01020304u) << "a field that nobody knows is no damage";
}

TEST_F(NimboSmbusTransport, NothingOfTheReplyBeforeIsLeft) {
   const auto transport = made();
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
   responseIs([](auto& response) { response.clear_responses(); });
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
             Failure::generic(EINVAL, "Nimbo response not found"));
}

TEST_F(NimboSmbusTransport, AllTwentyFourBitsOfAReplysLengthCount) {
   const auto transport = made();
   constexpr std::size_t size = 0xFFFFFF;
   peer.scriptIs([](const Frame& frame) -> Answer {
      Smbus::TransactionResponse response = ScriptedNimbo::response(frame.request);
      // Each length on the way takes four bytes, as it does in the end.
      response.mutable_responses(0)->set_data(std::string(0x800000, 'x'));
      const std::size_t missing = size - response.ByteSizeLong();
      response.mutable_responses(0)->set_data(std::string(0x800000 + missing, 'x'));
      return {{ScriptedNimbo::frame(response)}};
   });
   Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=9");
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
   EXPECT_EQ(trace.texts().back(), "Receiving Nimbo daemon's reply (16777215 bytes)");
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
}

TEST_F(NimboSmbusTransport, LengthsInReplyHeadersAreLittleEndian) {
   const auto transport = made();
   peer.scriptIs([](const Frame& frame) -> Answer {
      Smbus::TransactionResponse response = ScriptedNimbo::response(frame.request);
      response.mutable_responses(0)->set_data(std::string(0x012345, 'x'));
      const std::string payload = response.SerializeAsString();
      std::string all =
         ScriptedNimbo::frame(2, static_cast<std::uint32_t>(payload.size()), payload);
      EXPECT_EQ(all[3], 1);
      return {{all}};
   });
   EXPECT_EQ(transport->regRead("R"), 0x01020304u);
}

TEST_F(NimboSmbusTransport, AFailureToReceiveThePayloadIsReported) {
   const auto transport = made();
   for (const int error : {ECONNRESET, ENOMEM}) {
      bytesAre(ScriptedNimbo::frame(2, 1, ""));
      calls.clear();
      calls.errorsAre("recv", {0, error});
      EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
                Failure::system(error, "Error receiving data from Nimbo daemon"));
      EXPECT_THAT(calls.order(),
                  ElementsAre("send", "fsync 22", "recv", fmt::format("recv {}", error)));
   }
}

TEST_F(NimboSmbusTransport, AReplyWithoutPayloadIsNotWaitedFor) {
   const auto transport = made();
   bytesAre(ScriptedNimbo::frame(2, 0, ""));
   EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }),
             Failure::generic(EINVAL, "Invalid XID received"));
   EXPECT_THAT(calls.order(), ElementsAre("send", "fsync 22", "recv"));
}

TEST_F(NimboSmbusTransport, AFailureToReceiveTheHeaderIsAnInvalidResponse) {
   const auto transport = made();
   ASSERT_NE(transport->fd() % 256, 2);
   Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=9");
   calls.errorsAre("recv", {ECONNRESET});
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
             Failure::generic(EINVAL, "Received invalid response from Nimbo daemon"));
   EXPECT_THAT(calls.order(), ElementsAre("send", "fsync 22", fmt::format("recv {}", ECONNRESET)));
   EXPECT_EQ(trace.texts().back(), "Receiving Nimbo's protobuf header");
}

TEST_F(NimboSmbusTransport, ADaemonThatDiesBeforeItReadsTheRequestIsAnInvalidResponse) {
   const auto transport = made();
   int ends[2];
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
   transport->fdIs(ends[0]);
   calls.alsoIs(ends[0]);
   calls.onCall = [&](const SocketCalls::Call& call) {
      if (call.name == "fsync") {
         ::close(ends[1]);
      }
   };
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
             Failure::generic(EINVAL, "Received invalid response from Nimbo daemon"));
   calls.onCall = nullptr;
   EXPECT_THAT(calls.order(), ElementsAre("send", "fsync 22", fmt::format("recv {}", ECONNRESET)));
   ::close(ends[0]);
}

/// Gives a transport's connection another number, until the end of the scope.
class Renumbered {
public:
   Renumbered(OpenedUp& transport, SocketCalls& calls, int fd) : _fd(fd) {
      EXPECT_EQ(::dup2(transport.fd(), fd), fd);
      transport.fdIs(fd);
      calls.alsoIs(fd);
   }
   ~Renumbered() { ::close(_fd); }
   Renumbered(const Renumbered&) = delete;
   Renumbered& operator=(const Renumbered&) = delete;

private:
   const int _fd;
};

TEST_F(NimboSmbusTransport, OfADescriptorThatLooksLikeAResponseTheNumberStandsForTheHeader) {
   // 258 is kind 2 and length 1.
   const auto transport = made();
   const Renumbered renumbered(*transport, calls, 258);
   Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=9");
   calls.errorsAre("recv", {ECONNRESET, ENOTCONN});
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
             Failure::system(ENOTCONN, "Error receiving data from Nimbo daemon"));
   EXPECT_EQ(trace.texts().back(), "Receiving Nimbo daemon's reply (1 bytes)");
   EXPECT_EQ(calls.calls().back().length, 1u);
}

TEST_F(NimboSmbusTransport, WhatCameOfAHeaderBeforeItFailedStandsBeforeTheDescriptorsNumber) {
   const auto transport = made();
   const Renumbered renumbered(*transport, calls, 300); // 0x012c
   Platform::Trace::CaptureScope trace("TarnRegFile/NimboSmbusTransportMethodImpl=9");
   calls.mostAtOnceIs(1);
   bytesAre(bytes({2}));
   calls.errorsAre("recv", {0, ECONNRESET, ENOTCONN});
   EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }),
             Failure::system(ENOTCONN, "Error receiving data from Nimbo daemon"));
   EXPECT_EQ(trace.texts().back(), "Receiving Nimbo daemon's reply (1 bytes)");
}

TEST_F(NimboSmbusTransport, ADescriptorThatLooksLikeAnEmptyResponseHasAnotherId) {
   // 2 is kind 2 and no payload. What is standard error's number otherwise is so again below.
   const auto transport = made();
   const int standardError = ::dup(STDERR_FILENO);
   ASSERT_EQ(::dup2(transport->fd(), STDERR_FILENO), STDERR_FILENO);
   transport->fdIs(STDERR_FILENO);
   calls.alsoIs(STDERR_FILENO);
   calls.errorsAre("recv", {ECONNRESET});
   const Failure failure([&] { transport->regRead("R"); });
   ::dup2(standardError, STDERR_FILENO);
   ::close(standardError);
   EXPECT_EQ(failure, Failure::generic(EINVAL, "Invalid XID received"));
   EXPECT_THAT(calls.order(), ElementsAre("send", "fsync 22", fmt::format("recv {}", ECONNRESET)));
}

/// A child process in which the daemon's end of the connection is read again and again. Returns
/// once it has been told `zeros` times that there is nothing, and is still at it.
void expectWaiting(OpenedUp& transport, SocketCalls& calls, int zeros) {
   int pipe[2];
   ASSERT_EQ(::pipe(pipe), 0);
   const pid_t child = ::fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      // The daemon's end of the connection is not to live on in here.
      for (int fd = STDERR_FILENO + 1; fd < 1024; ++fd) {
         if (fd != transport.fd() && fd != pipe[1]) {
            ::close(fd);
         }
      }
      int seen = 0;
      calls.onCall = [&](const SocketCalls::Call& call) {
         if (call.name == "recv" && call.result == 0 && call.length > 0 && ++seen == zeros) {
            static_cast<void>(::write(pipe[1], "w", 1) == 1);
         }
      };
      try {
         transport.regRead("R");
      } catch (...) {
      }
      ::_exit(1);
   }
   ::close(pipe[1]);
   char byte = 0;
   EXPECT_EQ(::read(pipe[0], &byte, 1), 1) << "it ended";
   EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), 0) << "it ended";
   ::kill(child, SIGKILL);
   int status = 0;
   EXPECT_EQ(::waitpid(child, &status, 0), child);
   EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
   ::close(pipe[0]);
}

TEST_F(NimboSmbusTransport, AConnectionThatIsClosedInsteadOfAReplyIsWaitedAt) {
   const auto transport = made();
   bytesAre("", true);
   expectWaiting(*transport, calls, 100);
}

TEST_F(NimboSmbusTransport, AConnectionThatIsClosedInMidFrameIsWaitedAt) {
   for (const std::string& part :
        {bytes({2}), bytes({2, 9, 0}), bytes({2, 9, 0, 0}), bytes({2, 9, 0, 0, 8, 1, 1})}) {
      const auto transport = made();
      bytesAre(part, true);
      expectWaiting(*transport, calls, 100);
   }
}

// --- What the daemon says

TEST_F(NimboSmbusTransport, AFailureOfTheDaemonIsToldInItsWords) {
   const auto transport = made();
   for (const char* text : {"no such bus", "", "{} {0} %s", "\xc3\xa4"}) {
      responseIs([text](auto& response) {
         response.clear_responses();
         response.set_failed(true);
         response.set_error(text);
      });
      const Failure failure = Failure::generic(EIO, std::string("Nimbo failure: ") + text);
      EXPECT_EQ(Failure([&] { transport->regRead("R"); }), failure);
      EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }), failure);
   }
}

TEST_F(NimboSmbusTransport, TheFailureFlagCountsHoweverGoodTheData) {
   const auto transport = made();
   responseIs([](auto& response) { response.set_failed(true); });
   EXPECT_EQ(Failure([&] { transport->regRead("R"); }), Failure::generic(EIO, "Nimbo failure: "));
   EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }),
             Failure::generic(EIO, "Nimbo failure: "));
   responseIs([](auto& response) { response.set_error("only a text"); });
   EXPECT_EQ(transport->regRead("R"), 0x01020304u) << "and a text without it does not";
   EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }), Failure::none());
}

TEST_F(NimboSmbusTransport, AReadNeedsTwoResponses) {
   const auto transport = made();
   for (const int count : {0, 1}) {
      responseIs([count](auto& response) {
         response.clear_responses();
         for (int i = 0; i < count; ++i) {
            response.add_responses()->set_data("\1\2\3\4");
         }
      });
      EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
                Failure::generic(EINVAL, "Nimbo response not found"));
   }
}

TEST_F(NimboSmbusTransport, OfMoreResponsesTheSecondIsTaken) {
   const auto transport = made();
   responseIs([](auto& response) {
      response.mutable_responses(0)->set_data("abcd");
      response.mutable_responses(1)->set_data("\x0a\x0b\x0c\x0d");
      response.add_responses()->set_data("efgh");
   });
   EXPECT_EQ(transport->regRead("R"), 0x0A0B0C0Du);
}

TEST_F(NimboSmbusTransport, AReadTakesFourBytesOfDataExactly) {
   const auto transport = made();
   for (const std::size_t size : {0, 3, 5, 8}) {
      responseIs([size](auto& response) {
         response.mutable_responses(1)->set_data(std::string(size, 'x'));
      });
      EXPECT_EQ(Failure([&] { transport->regRead("R"); }),
                Failure::generic(EINVAL, "Invalid Nimbo response length"))
         << size;
   }
}

TEST_F(NimboSmbusTransport, AWriteDoesNotLookAtTheResponses) {
   const auto transport = made();
   for (const int count : {0, 3}) {
      responseIs([count](auto& response) {
         response.clear_responses();
         for (int i = 0; i < count; ++i) {
            response.add_responses()->set_data("whatever");
         }
      });
      EXPECT_EQ(Failure([&] { transport->regWrite("R", 1); }), Failure::none());
   }
}

TEST_F(NimboSmbusTransport, TheConnectionWorksOnBehindEachFailureInAWholeFrame) {
   const auto transport = made();
   const auto failsOnce = [&](const std::function<void(Smbus::TransactionResponse&)>& change) {
      responseIs(change);
      EXPECT_THROW(transport->regRead("R"), std::system_error);
      responseIs([](auto&) {});
      EXPECT_EQ(transport->regRead("R"), 0x01020304u);
   };
   failsOnce([](auto& response) { response.set_failed(true); });
   failsOnce([](auto& response) { response.set_xid(0); });
   failsOnce([](auto& response) { response.clear_responses(); });
   failsOnce([](auto& response) { response.mutable_responses(1)->clear_data(); });
   EXPECT_EQ(peer.connections(), 1u);
}

TEST_F(NimboSmbusTransportDeathTest, HasNoBlockAccess) {
   const auto transport = made();
   std::uint32_t word = 0;
   EXPECT_DEATH(transport->regReadBlock("R", &word, 1),
                "regReadBlock.*assertion failed: false && \"Unimplemented\"");
   EXPECT_DEATH(transport->regWriteBlock("R", &word, 1),
                "regWriteBlock.*assertion failed: false && \"Unimplemented\"");
   EXPECT_THAT(peer.frames(), IsEmpty());
}

TEST_F(NimboSmbusTransport, KeepsAnAsyncHelperAsTheBaseDoes) {
   const auto transport = made();
   EXPECT_FALSE(transport->getAsyncHelper());
   const auto helper = Platform::make<TestSupport::RecordingAsyncHelper>();
   transport->asyncHelperIs(helper);
   EXPECT_EQ(transport->getAsyncHelper(), helper);
   transport->regRead("R");
   EXPECT_THAT(helper->results, IsEmpty()) << "results are the TransportMethod's to deliver";
}

// --- Through the factory

TEST_F(NimboSmbusTransport, BothRowsMakeTheSameTransport) {
   for (const auto& [flavour, type] : {std::pair(TransportFlavour::nimboSmbusFlavour1, 2),
                                       std::pair(TransportFlavour::nimboSmbusFlavour2, 1)}) {
      const auto& factory = TarnRegFile::implFactoryMap.at(
         {TarnRegFile::TransportType::i2cBus, TarnRegFile::TransportProtocol::nimboSmbus, flavour});
      const auto descriptor = TarnRegFile::nimboSmbusTransportDescriptorFactory(
         3, 0x50, 0, flavour, PciAddress{0, 1, 2, 3});
      const std::unique_ptr<TarnRegFile::BaseTransportMethodImpl> made(
         factory(descriptor, csv, nullptr));
      ASSERT_NE(dynamic_cast<NimboSmbusTransportMethodImpl*>(made.get()), nullptr);
      EXPECT_EQ(descriptor->refCount(), 1u) << "nothing of the descriptor is kept";
      made->regWrite("R", 1);
      EXPECT_EQ(lastRequest().requests(0).mastertype(), type);
      EXPECT_EQ(lastRequest().requests(0).address(), device | oneByte | 0x12);
      EXPECT_EQ(lastRequest().requests(0).pci_bdf(), 0x113u);
   }
}

TEST_F(NimboSmbusTransport, TheRowsWantADescriptorOfTheirKind) {
   const auto other = TarnRegFile::baseTransportDescriptorFactory(
      TarnRegFile::TransportType::i2cBus, TarnRegFile::TransportProtocol::nimboSmbus,
      TransportFlavour::nimboSmbusFlavour2);
   const auto tm = TarnRegFile::transportMethodFactory("device");
   EXPECT_EQ(Failure([&] { tm->init(other, csv); }),
             Failure::generic(EINVAL, "TransportDescriptor must be a "
                                      "TarnRegFile::NimboSmbusTransportDescriptor, not "
                                      "TarnRegFile::BaseTransportDescriptor"));
   const auto& factory = TarnRegFile::implFactoryMap.at({TarnRegFile::TransportType::i2cBus,
                                                         TarnRegFile::TransportProtocol::nimboSmbus,
                                                         TransportFlavour::nimboSmbusFlavour1});
   EXPECT_EQ(Failure([&] { factory(nullptr, csv, nullptr); }),
             Failure::generic(EINVAL, "TransportDescriptor must be a "
                                      "TarnRegFile::NimboSmbusTransportDescriptor, not null"));
   EXPECT_THAT(calls.order(), IsEmpty());
}

TEST_F(NimboSmbusTransport, AFailureReachesTheErrorNotifierAndTheTrace) {
   const auto tm = TarnRegFile::transportMethodFactory("device");
   tm->init(TarnRegFile::nimboSmbusTransportDescriptorFactory(3, 0x50, 0,
                                                              TransportFlavour::nimboSmbusFlavour1),
            csv);
   EXPECT_FALSE(tm->isAsync());
   EXPECT_EQ(tm->regRead("R"), 0x01020304u);
   responseIs([](auto& response) {
      response.set_failed(true);
      response.set_error("bus 3: no acknowledge");
   });
   Platform::Trace::CaptureScope trace("*=0");
   EXPECT_EQ(tm->regRead("R"), 0xFFFFFFFFu);
   EXPECT_TRUE(tm->errorNotifier()->error());
   EXPECT_THAT(
      trace.texts().at(0),
      StartsWith("TransportMethod error on register 'R': Nimbo failure: bus 3: no acknowledge"));
}

} // namespace
