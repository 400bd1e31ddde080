#include "platform/hardware/SpiEngineConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "tests/support/ChangeLog.h"
#include "tests/support/Failure.h"
#include "tests/support/Reflected.h"

namespace {

using Hardware::SpiEngineConfig;
using Hardware::SpiEngineRequest;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::ChangeLog;
using TestSupport::Failure;

TEST(SpiEngineConfig, HasItsNameAndAnEmptyQueue) {
   const auto config = Platform::make<SpiEngineConfig>("cpld");
   EXPECT_EQ(config->name(), "cpld");
   EXPECT_EQ(config->queueLength(), 0u);
}

TEST(SpiEngineConfig, QueuesWithoutAnybodyToServeTheQueue) {
   const auto config = Platform::make<SpiEngineConfig>("cpld");
   const auto request = Platform::make<SpiEngineRequest>(1u);
   ChangeLog log(*config);
   config->requestEnq(request);
   config->requestEnq(request);
   EXPECT_EQ(config->queueLength(), 2u);
   EXPECT_EQ(request->refCount(), 3u) << "the same request twice is two";
   EXPECT_THAT(log.changes, ElementsAre("queueLength", "queueLength"));
}

TEST(SpiEngineConfig, LetsWhatStillWaitsGoWithIt) {
   const auto request = Platform::make<SpiEngineRequest>(1u);
   Platform::make<SpiEngineConfig>("cpld")->requestEnq(request);
   EXPECT_EQ(request->refCount(), 1u);
}

TEST(SpiEngineConfig, RefusesANullRequest) {
   const auto config = Platform::make<SpiEngineConfig>("cpld");
   ChangeLog log(*config);
   EXPECT_EQ(Failure([&] { config->requestEnq(nullptr); }),
             Failure::generic(EINVAL, "SPI request must not be null"));
   EXPECT_EQ(config->queueLength(), 0u);
   EXPECT_THAT(log.changes, IsEmpty());
}

TEST(SpiEngineConfig, RefusesWhatIsBeyondItsBoundAndKeepsTheRest) {
   const auto config = Platform::make<SpiEngineConfig>("cpld");
   const auto request = Platform::make<SpiEngineRequest>(1u);
   for (std::size_t i = 0; i < SpiEngineConfig::maxQueued; ++i) {
      config->requestEnq(request);
   }
   ChangeLog log(*config);
   EXPECT_EQ(Failure([&] { config->requestEnq(request); }),
             Failure::generic(ENOBUFS, "SPI engine 'cpld' already has 65536 requests queued"));
   EXPECT_EQ(config->queueLength(), 65536u);
   EXPECT_THAT(log.changes, IsEmpty());
}

TEST(SpiEngineConfig, AFailingObserverReachesTheCallerWithTheRequestQueued) {
   const auto config = Platform::make<SpiEngineConfig>("cpld");
   ChangeLog log(*config, [] { throw std::runtime_error("observer"); });
   EXPECT_THROW(config->requestEnq(Platform::make<SpiEngineRequest>(1u)), std::runtime_error);
   EXPECT_EQ(config->queueLength(), 1u);
}

TEST(SpiEngineConfig, ReflectsItsQueueLength) {
   EXPECT_THAT(TestSupport::reflectedAttributes(SpiEngineConfig::staticType()),
               ElementsAre("name", "queueLength"));
   EXPECT_EQ(SpiEngineConfig::staticType().name(), "Hardware::SpiEngineConfig");
}

} // namespace
