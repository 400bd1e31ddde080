#include "board/ServiceNotifier.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "nimbo/UnixAddress.h"
#include "platform/trace/CaptureScope.h"
#include "TarnRegFile/Utils.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

namespace Board {
namespace {

using TestSupport::EnvironmentVariable;

/// What a service manager is told at its socket.
std::string received(int socket) {
   std::array<char, 256> text{};
   const ssize_t size = ::recv(socket, text.data(), text.size(), MSG_DONTWAIT);
   return size < 0 ? "nothing" : std::string(text.data(), static_cast<std::size_t>(size));
}

TEST(ServiceNotifier, TellsTheServiceManager) {
   const TestSupport::TempDir dir;
   const TarnRegFile::Utils::UnixFdRes manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
   const Nimbo::UnixAddress address(dir.path("notify"));
   ASSERT_EQ(::bind(manager.fd(), address.get(), address.size()), 0);
   const EnvironmentVariable variable("NOTIFY_SOCKET", dir.path("notify"));
   const ServiceNotifier notifier;
   EXPECT_EQ(received(manager.fd()), "nothing");
   notifier.ready();
   EXPECT_EQ(received(manager.fd()), "READY=1");
   notifier.reloading();
   EXPECT_THAT(received(manager.fd()), testing::MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
   notifier.ready();
   EXPECT_EQ(received(manager.fd()), "READY=1");
   notifier.stopping();
   EXPECT_EQ(received(manager.fd()), "STOPPING=1");
   notifier.alive();
   EXPECT_EQ(received(manager.fd()), "WATCHDOG=1");
}

TEST(ServiceNotifier, DoesNothingWithoutAServiceManager) {
   const EnvironmentVariable variable("NOTIFY_SOCKET", std::nullopt);
   const Platform::Trace::CaptureScope trace("board/*=9");
   const ServiceNotifier notifier;
   notifier.ready();
   notifier.reloading();
   notifier.stopping();
   notifier.alive();
   EXPECT_THAT(trace.records(), testing::IsEmpty());
}

TEST(ServiceNotifier, IsWatchedIfTheServiceManagerSaysSoToThisProcess) {
   const EnvironmentVariable interval("WATCHDOG_USEC", "30000000");
   {
      const EnvironmentVariable process("WATCHDOG_PID", std::to_string(::getpid()));
      EXPECT_EQ(ServiceNotifier::watchdogInterval(), std::chrono::seconds(30));
   }
   {
      const EnvironmentVariable process("WATCHDOG_PID", "1");
      EXPECT_EQ(ServiceNotifier::watchdogInterval(), std::nullopt) << "another process is meant";
   }
   const EnvironmentVariable none("WATCHDOG_USEC", std::nullopt);
   EXPECT_EQ(ServiceNotifier::watchdogInterval(), std::nullopt);
}

TEST(ServiceNotifier, AServiceManagerThatCannotBeToldIsTraced) {
   const EnvironmentVariable variable("NOTIFY_SOCKET", "/nonexistent/notify");
   const Platform::Trace::CaptureScope trace("board/*=9");
   ServiceNotifier().ready();
   EXPECT_THAT(trace.texts(), testing::ElementsAre("READY=1: No such file or directory"));
}

} // namespace
} // namespace Board
