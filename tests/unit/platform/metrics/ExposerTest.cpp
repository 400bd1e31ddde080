#include "platform/metrics/Exposer.h"

#include <atomic>
#include <csignal>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/metrics/Registry.h"
#include "tests/unit/platform/metrics/HttpGet.h"

namespace {

using Platform::Metrics::Counter;
using Platform::Metrics::Exposer;
using Platform::Metrics::Registration;
using Platform::Metrics::Registry;
using Platform::Metrics::Test::exposition;
using Platform::Metrics::Test::httpGet;
using testing::HasSubstr;
using testing::StartsWith;

class ExposerTest : public testing::Test {
protected:
   Registry registry;
};

TEST_F(ExposerTest, ServesTheTextFormatAtMetrics) {
   const Exposer exposer(registry, "127.0.0.1:0");
   const std::string answer = httpGet(exposer.port(), "/metrics");
   EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
   EXPECT_THAT(answer, HasSubstr("\r\nContent-Type: text/plain; charset=utf-8\r\n"));
}

TEST_F(ExposerTest, ServesNothingElse) {
   const Exposer exposer(registry, "127.0.0.1:0");
   for (const char* path : {"/", "/metric", "/../../etc/passwd", "/etc/passwd"}) {
      const std::string answer = httpGet(exposer.port(), path);
      EXPECT_THAT(answer, StartsWith("HTTP/1.0 404 Not Found\r\n")) << path;
      EXPECT_THAT(answer, testing::Not(HasSubstr("root:")));
   }
}

TEST_F(ExposerTest, PortZeroPicksAFreeOneForEach) {
   const Exposer first(registry, "0");
   const Exposer second(registry, ":0");
   const Exposer third(registry, "localhost:0");
   EXPECT_NE(first.port(), 0);
   EXPECT_NE(second.port(), 0);
   EXPECT_NE(first.port(), second.port());
   EXPECT_EQ(exposition(first.port()), exposition(third.port()));
}

TEST_F(ExposerTest, AddressInUseIsASystemErrorThatNamesIt) {
   const Exposer first(registry, "0");
   const std::string address = "127.0.0.1:" + std::to_string(first.port());
   try {
      const Exposer second(registry, address);
      FAIL() << "listens twice on " << address;
   } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::address_in_use);
      EXPECT_EQ(error.what(), "cannot serve metrics on '" + address + "': Address already in use");
   }
   EXPECT_THAT(httpGet(first.port(), "/metrics"), StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(ExposerTest, AddressOfAnotherHostIsASystemError) {
   try {
      const Exposer exposer(registry, "192.0.2.1:0");
      FAIL() << "listens on a documentation address";
   } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::address_not_available);
      EXPECT_THAT(error.what(), StartsWith("cannot serve metrics on '192.0.2.1:0': "));
   }
}

TEST_F(ExposerTest, BadTextIsAnInvalidArgumentThatNamesIt) {
   try {
      const Exposer exposer(registry, "nowhere");
      FAIL() << "listens nowhere";
   } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "address 'nowhere': expected a port, 0 to 65535, at the end");
   }
}

// What the HTTP server underneath can do is decided where that is built.
TEST_F(ExposerTest, V6AddressIsServedOrRefusedByName) {
   try {
      const Exposer exposer(registry, "[::1]:0");
      EXPECT_NE(exposer.port(), 0);
   } catch (const std::system_error& error) {
      EXPECT_TRUE(error.code() == std::errc::address_family_not_supported ||
                  error.code() == std::errc::address_not_available)
         << error.what();
      EXPECT_THAT(error.what(), StartsWith("cannot serve metrics on '[::1]:0': "));
   }
}

TEST_F(ExposerTest, PortIsFreeAgainAfterwards) {
   std::optional<Exposer> first(std::in_place, registry, "0");
   const std::string address = std::to_string(first->port());
   EXPECT_THAT(httpGet(first->port(), "/metrics"), StartsWith("HTTP/1.1 200 OK\r\n"));
   const std::uint16_t port = first->port();
   first.reset();
   EXPECT_THROW(httpGet(port, "/metrics"), std::system_error);
   const Exposer second(registry, address);
   EXPECT_EQ(second.port(), port);
}

TEST(Exposer, KeepsServingWhenTheRegistryIsGone) {
   Counter counter;
   std::optional<Registry> registry(std::in_place);
   const Registration registration = registry->registrationNew({{"a_total", "", &counter}});
   const Exposer exposer(*registry, "0");
   registry.reset();
   counter.Inc();
   EXPECT_THAT(exposition(exposer.port()), HasSubstr("\na_total 1\n"));
}

TEST(Exposer, TwoRegistriesDoNotMix) {
   Registry first;
   Registry second;
   Counter counter;
   const Registration registration = first.registrationNew({{"a_total", "", &counter}});
   const Exposer exposer(second, "0");
   EXPECT_THAT(exposition(exposer.port()), testing::Not(HasSubstr("a_total")));
}

std::atomic<int> handled{0};

TEST_F(ExposerTest, ItsThreadsTakeNoneOfTheProcessesSignals) {
   struct sigaction action {};
   struct sigaction previousAction {};
   action.sa_handler = [](int) { ++handled; };
   ASSERT_EQ(::sigaction(SIGUSR1, &action, &previousAction), 0);
   const Exposer exposer(registry, "0");
   // From here on only the exposer's threads could take it.
   sigset_t signals;
   sigset_t previousMask;
   ::sigemptyset(&signals);
   ::sigaddset(&signals, SIGUSR1);
   ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &signals, &previousMask), 0);
   ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
   const timespec limit{30, 0};
   EXPECT_EQ(::sigtimedwait(&signals, nullptr, &limit), SIGUSR1);
   EXPECT_EQ(handled, 0);
   ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
   ::sigaction(SIGUSR1, &previousAction, nullptr);
}

TEST_F(ExposerTest, LeavesTheSignalMaskOfItsCallerAlone) {
   sigset_t before;
   sigset_t after;
   ::pthread_sigmask(SIG_SETMASK, nullptr, &before);
   const Exposer exposer(registry, "0");
   ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
   for (int signal = 1; signal < NSIG; ++signal) {
      EXPECT_EQ(::sigismember(&before, signal), ::sigismember(&after, signal)) << signal;
   }
}

} // namespace
