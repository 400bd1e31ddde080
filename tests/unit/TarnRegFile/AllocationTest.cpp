#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <string_view>

#include "platform/entity/EventLoop.h"
#include "platform/hardware/PciHwAccessImpl.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/NimboSmbusTransportDescriptor.h"
#include "TarnRegFile/PciTransportDescriptor.h"
#include "TarnRegFile/ShadowClient.h"
#include "TarnRegFile/ShadowRegisterStatus.h"
#include "TarnRegFile/TransportMethod.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/RegisterSpace.h"
#include "tests/support/ScriptedNimbo.h"
#include "tests/support/TempDir.h"

namespace {

// What this program's operator new counts and calls, the libraries' allocations included, and those
// of other threads not.
thread_local std::size_t allocations = 0;
void (*onAllocation)() = nullptr;

void* allocate(std::size_t size) {
   ++allocations;
   if (onAllocation) {
      onAllocation();
   }
   if (void* memory = std::malloc(size ? size : 1)) {
      return memory;
   }
   throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t size) {
   return allocate(size);
}
void* operator new[](std::size_t size) {
   return allocate(size);
}
void operator delete(void* memory) noexcept {
   std::free(memory);
}
void operator delete[](void* memory) noexcept {
   std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
   std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
   std::free(memory);
}

namespace {

using TarnRegFile::Ptr;
using TarnRegFile::String;
using TarnRegFile::TransportMethod;
using TestSupport::EnvironmentVariable;
using TestSupport::TempDir;

std::size_t allocationsOf(const std::function<void()>& body) {
   const std::size_t before = allocations;
   body();
   return allocations - before;
}

class Allocation : public testing::Test {
protected:
   const EnvironmentVariable _noValues{"REG_VALUES_FILE", std::nullopt};
   TempDir _dir;
   // Longer than any small-string buffer.
   const String _name = "A_REGISTER_WITH_A_NAME_THAT_DOES_NOT_FIT_IN_A_SMALL_STRING[7]";
   Ptr<TransportMethod> _tm = [this] {
      auto tm = TarnRegFile::transportMethodFactory("chip");
      String list = "number,name,type,writeable,width\n";
      for (int i = 0; i < 1000; ++i) {
         list += std::to_string(i + 100) + ",OTHER_" + std::to_string(i) + ",led,true,8\n";
      }
      list += "1," + _name + ",led,true,8\n";
      tm->init(TarnRegFile::mockTransportDescriptorFactory(), _dir.write("a.csv", list));
      return tm;
   }();
};

TEST_F(Allocation, IsCountedInTheLibrariesToo) {
   EXPECT_GT(allocationsOf([&] { _tm->regList(); }), 1000u);
}

TEST_F(Allocation, AReadAfterTheFirstAllocatesNothing) {
   _tm->regRead(_name);
   EXPECT_EQ(allocationsOf([&] {
                for (int i = 0; i < 1000; ++i) {
                   _tm->regRead(_name);
                }
             }),
             0u);
}

TEST_F(Allocation, AWriteAfterTheFirstAllocatesNothing) {
   _tm->regWrite(_name, 1);
   EXPECT_EQ(allocationsOf([&] {
                for (std::uint32_t i = 0; i < 1000; ++i) {
                   _tm->regWrite(_name, i);
                }
             }),
             0u);
}

TEST_F(Allocation, AccessesByHandleAllocateNothingAfterTheFirst) {
   const auto handle = _tm->regHandle(_name);
   _tm->regReadByHandle(handle);
   EXPECT_EQ(allocationsOf([&] {
                for (std::uint32_t i = 0; i < 1000; ++i) {
                   _tm->regWriteByHandle(handle, i);
                   _tm->regReadByHandle(handle);
                }
             }),
             0u);
}

TEST_F(Allocation, AMappedDevicesAccessesAllocateNothingGuardedOrNot) {
   TestSupport::RegisterSpace space(8192);
   const auto access = Hardware::pciHwAccessImplFactory("fpga", space.path());
   const auto descriptor = TarnRegFile::pciTransportDescriptorFactory(access);
   for (const bool plain : {false, true}) {
      access->busErrorFlagIs(plain);
      const auto tm = TarnRegFile::transportMethodFactory("fpga");
      tm->fullInit(descriptor,
                   TarnRegFile::TransportMethodRegFile(_tm->regFileHelper()->regFilePtr()));
      EXPECT_EQ(allocationsOf([&] {
                   for (std::uint32_t i = 0; i < 1000; ++i) {
                      tm->regWrite(_name, i);
                      tm->regRead(_name);
                   }
                }),
                0u);
   }
}

TEST_F(Allocation, AReadOfAShadowRegisterAllocatesNothing) {
   using namespace TarnRegFile::Sable;
   const TempDir tables{"/dev/shm"};
   Platform::EventLoop loop;
   Platform::Tables::TableService service(loop, Platform::Tables::TableDirectory(tables.path()));
   const auto control = Platform::Tables::collectionControlFactory(
      service, {.role = Platform::Tables::TableRole::writer});
   const auto status = shadowRegisterStatusFactory("core/status");
   status->regMapControlIs(control);
   control->mount();
   const auto registers = _tm->regFileHelper()->regFilePtr();
   status->regMapIs(CoreRegister(CoreRegisterKey(registers->findRegister(_name)->address), 5));
   const ShadowClient client(loop, service, "core", registers);
   std::uint32_t sum = 0;
   EXPECT_EQ(allocationsOf([&] {
                for (int i = 0; i < 1000; ++i) {
                   sum += client.read(_name);
                }
             }),
             0u);
   EXPECT_EQ(sum, 5000u);
   control->unmount();
}

/// What the messages of a read or a write allocate, from their making to their end.
std::size_t messageAllocations(bool isRead) {
   std::string wire(1000, ' ');
   std::size_t count = allocationsOf([&] {
      Smbus::TransactionRequest request;
      request.add_requests()->set_data("12345", isRead ? 1 : 5);
      if (isRead) {
         request.add_requests();
      }
      wire.clear();
      request.AppendToString(&wire);
   });
   Smbus::TransactionResponse answer;
   answer.set_xid(1);
   answer.add_responses();
   if (isRead) {
      answer.add_responses()->set_data("1234");
   }
   answer.SerializeToString(&wire);
   count += allocationsOf([&] {
      Smbus::TransactionResponse response;
      response.ParseFromArray(wire.data(), static_cast<int>(wire.size()));
   });
   return count;
}

TEST_F(Allocation, ATransactionWithTheSmbusDaemonAllocatesItsMessagesAndNothingElse) {
   const EnvironmentVariable directory("NM_SOCKET_DIR", _dir.path());
   const EnvironmentVariable file("NM_SOCKET_FILE", std::nullopt);
   TestSupport::ScriptedNimbo peer(_dir.path("smbus"));
   const auto tm = TarnRegFile::transportMethodFactory("chip");
   tm->fullInit(TarnRegFile::nimboSmbusTransportDescriptorFactory(
                   3, 0x50, 0, TarnRegFile::TransportFlavour::nimboSmbusFlavour1),
                TarnRegFile::TransportMethodRegFile(_tm->regFileHelper()->regFilePtr()));
   constexpr std::size_t rounds = 100;
   for (std::size_t i = 0; i < rounds; ++i) { // ids are random, and one in sixteen is shorter
      tm->regRead(_name);
      tm->regWrite(_name, 1);
   }
   EXPECT_EQ(allocationsOf([&] {
                for (std::size_t i = 0; i < rounds; ++i) {
                   tm->regRead(_name);
                }
             }),
             rounds * messageAllocations(true));
   EXPECT_EQ(allocationsOf([&] {
                for (std::size_t i = 0; i < rounds; ++i) {
                   tm->regWrite(_name, 1);
                }
             }),
             rounds * messageAllocations(false));
}

TEST_F(Allocation, NamingAHelperAddsNone) {
   class Counting : public TarnRegFile::AsyncHelperBase {
   public:
      void handleReadResult(const String&, TarnRegFile::RegAccessResult, std::uint32_t) override {
         ++results;
      }
      void handleWriteResult(const String&, TarnRegFile::RegAccessResult) override { ++results; }
      int results = 0;
   };
   const auto helper = Platform::make<Counting>();
   _tm->asyncHelperIs(helper);
   _tm->regRead(_name);
   EXPECT_EQ(allocationsOf([&] {
                _tm->regRead(_name);
                _tm->regWrite(_name, 5);
             }),
             0u);
   EXPECT_EQ(helper->results, 3);
}

TEST_F(Allocation, LookUpsThatReturnNoTextAllocateNothing) {
   EXPECT_EQ(allocationsOf([&] {
                EXPECT_TRUE(_tm->hasRegName(_name));
                EXPECT_EQ(_tm->regNameToAddr(_name), 4u);
                EXPECT_EQ(_tm->getRegArraySize(_name), 1u);
             }),
             0u);
}

// A process that appends to the values file as fast as this one reads it would otherwise be
// followed without end. Storing values allocates now and then, and each allocation while the file
// is open for reading appends a line here: that of a register of its own, counted from the last.
std::string valuesPath;
int appendFd = -1;
int appends = 0;

bool openForReading() {
   for (int fd = 0; fd < 64; ++fd) {
      char link[32];
      char target[256];
      std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
      const ssize_t length = fd == appendFd ? -1 : ::readlink(link, target, sizeof(target));
      if (length > 0 && std::string_view(target, static_cast<std::size_t>(length)) == valuesPath) {
         return true;
      }
   }
   return false;
}

void append() {
   if (openForReading()) {
      char line[32];
      const int length = std::snprintf(line, sizeof(line), "%d,9\n", 1'000'000 + 4 * appends++);
      static_cast<void>(::write(appendFd, line, static_cast<std::size_t>(length)) == length);
   }
}

TEST_F(Allocation, AValuesFileIsReadAsFarAsItReachedWhenItWasOpened) {
   constexpr std::uint32_t lines = 5000;
   String content = "Address,Value\n";
   for (std::uint32_t i = 0; i < lines; ++i) {
      content += std::to_string(4 * i) + ",7\n";
   }
   valuesPath = _dir.write("values.csv", content);
   const EnvironmentVariable values("REG_VALUES_FILE", valuesPath);
   appendFd = ::open(valuesPath.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
   ASSERT_GE(appendFd, 0);
   const auto model = Hardware::hardwareRegisterFileFactory("m");
   model->addrBlockSizeIs(4);
   Hardware::HardwareRegister record;
   record.width = 32;
   for (const std::uint32_t address : {0U, 4 * (lines - 1)}) {
      record.name = "OLD" + std::to_string(address);
      record.address = address;
      model->nameToRegMapIs(record.name, record);
   }
   for (std::uint32_t i = 0; i < 1000; ++i) {
      record.name = "NEW" + std::to_string(i);
      record.address = 1'000'000 + 4 * i;
      model->nameToRegMapIs(record.name, record);
   }
   const auto tm = TarnRegFile::transportMethodFactory("chip");
   const TarnRegFile::TransportMethodRegFile source(model);
   const auto descriptor = TarnRegFile::mockTransportDescriptorFactory();
   onAllocation = append;
   tm->fullInit(descriptor, source);
   onAllocation = nullptr;
   ::close(appendFd);
   ASSERT_GT(appends, 0) << "the file did grow";
   EXPECT_EQ(tm->regRead("NEW" + std::to_string(std::min(appends, 1000) - 1)), 0u);
   EXPECT_EQ(tm->regRead("OLD0"), 7u) << "all that was there is read";
   EXPECT_EQ(tm->regRead("OLD" + std::to_string(4 * (lines - 1))), 7u);
}

} // namespace
