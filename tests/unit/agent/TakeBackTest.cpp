// Operations that a client takes back while the agent may be beginning them.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <set>
#include <vector>

#include "agent/OrderedRunner.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/OrderedClient.h"
#include "tests/support/Registers.h"
#include "tests/support/TempDir.h"

namespace Agent {
namespace {

using namespace TarnRegFile::Sable;

constexpr std::uint32_t rounds = 400;

/// Submits and takes back, sooner or later; writes to `fd` the number of each operation of which
/// it was told that nothing of it is going to be written.
void takeBack(const std::string& directory, int fd) {
   Platform::EventLoop loop;
   Platform::Tables::TableService service(loop, Platform::Tables::TableDirectory(directory));
   const auto registers = Hardware::hardwareRegisterFileFactory("fpga");
   TestSupport::registerIs(*registers, "SCRATCH", 8);
   OrderedClient client(loop, service, "fpga", registers);
   for (std::uint32_t round = 0; round < rounds; ++round) {
      const UniqueId id = client.submit({{"SCRATCH", round}, {"SCRATCH", round}});
      // The agent begins it at any moment of these.
      const auto then =
         std::chrono::steady_clock::now() + std::chrono::microseconds(round % 50 * 4);
      while (std::chrono::steady_clock::now() < then) {
      }
      if (client.takeBack(id)) {
         (void)!::write(fd, &round, sizeof round);
      } else {
         client.wait(id, std::chrono::seconds(60));
      }
   }
}

} // namespace

TEST(OrderedRunner, WritesNothingOfWhatAClientWasToldItTookBack) {
   const TestSupport::TempDir directory("/dev/shm");
   Platform::EventLoop loop;
   Platform::Tables::TableService service(
      loop, Platform::Tables::TableDirectory(directory.path("tables")));
   const auto controlNew = [&] {
      return Platform::Tables::collectionControlFactory(
         service, {.role = Platform::Tables::TableRole::writer});
   };
   const std::vector controls{controlNew(), controlNew()};
   const auto ops = orderedRegisterConfigFactory("fpga/ops");
   const auto outcomes = orderedRegisterStatusFactory("fpga/ops-status");
   ops->opControlIs(controls[0]);
   outcomes->opControlIs(controls[1]);
   for (const auto& control : controls) {
      control->mount();
   }
   std::set<std::uint32_t> written;
   {
      OrderedRunner* running = nullptr;
      OrderedRunner::Counters counters;
      OrderedRunner runner(
         loop, ops, outcomes, 10, counters,
         OrderedRunner::Handlers{
            .canStart = [] { return true; },
            .write = [&](std::uint32_t, std::uint32_t value) -> std::optional<std::string> {
               written.insert(value);
               running->result(true, "");
               return std::nullopt;
            },
            .written = [](std::uint32_t, std::uint32_t) {},
            .stopped = [](const std::string&) {},
            .idle = [] {},
            .troubled = [](const std::string& text) { ADD_FAILURE() << text; }});
      running = &runner;
      int pipe[2];
      ASSERT_EQ(::pipe(pipe), 0);
      std::fflush(nullptr);
      const pid_t pid = ::fork();
      if (pid == 0) {
         int verdict = 0;
         try {
            takeBack(directory.path("tables"), pipe[1]);
         } catch (const std::exception& error) {
            std::fprintf(stderr, "in the other process: %s\n", error.what());
            verdict = 1;
         }
         ::_exit(verdict);
      }
      ::close(pipe[1]);
      int status = -1;
      EXPECT_TRUE(loop.runUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; },
                                std::chrono::seconds(120)));
      EXPECT_EQ(status, 0);
      loop.poll();
      std::uint32_t takenBack = 0;
      std::size_t count = 0;
      while (::read(pipe[0], &takenBack, sizeof takenBack) == sizeof takenBack) {
         EXPECT_FALSE(written.contains(takenBack)) << takenBack;
         ++count;
      }
      ::close(pipe[0]);
      RecordProperty("takenBack", static_cast<int>(count));
      RecordProperty("written", static_cast<int>(written.size()));
   }
   for (const auto& control : controls) {
      control->unmount();
   }
}

} // namespace Agent
