#include "platform/hardware/SpiEngineRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/entity/Ptr.h"
#include "tests/support/Failure.h"

namespace {

using Hardware::SpiCmdData;
using Hardware::SpiEngineRequest;
using testing::ElementsAre;
using testing::IsEmpty;
using TestSupport::Failure;

TEST(SpiCmdData, IsAPlainWriteOfZeroUnlessSaidOtherwise) {
   EXPECT_EQ(SpiCmdData(), (SpiCmdData{0, 0}));
   EXPECT_EQ(SpiCmdData::writeByte, 0);
   EXPECT_NE((SpiCmdData{0, 1}), (SpiCmdData{0, 2}));
   EXPECT_NE((SpiCmdData{1, 1}), (SpiCmdData{0, 1}));
}

TEST(SpiEngineRequest, StartsEmptyWithItsId) {
   const auto request = Platform::make<SpiEngineRequest>(0xfffffffeu);
   EXPECT_EQ(request->id(), 0xfffffffeu);
   EXPECT_EQ(request->size(), 0u);
   EXPECT_EQ(request->cmdData(0), std::nullopt);
   EXPECT_THAT(request->received(), IsEmpty());
}

TEST(SpiEngineRequest, HoldsEntriesByIndexWhateverTheOrder) {
   const auto request = Platform::make<SpiEngineRequest>(1u);
   for (const int index : {5, 0, 4, 3, 1, 2}) {
      request->cmdDataIs(index, {static_cast<std::uint16_t>(index), 7});
   }
   EXPECT_EQ(request->size(), 6u);
   for (int index = 0; index < 6; ++index) {
      EXPECT_EQ(request->cmdData(index), (SpiCmdData{static_cast<std::uint16_t>(index), 7}));
   }
   EXPECT_EQ(request->cmdData(6), std::nullopt);
   EXPECT_EQ(request->cmdData(0xffff), std::nullopt);
}

TEST(SpiEngineRequest, ALaterEntryReplacesTheOneAtItsIndex) {
   const auto request = Platform::make<SpiEngineRequest>(1u);
   for (const int index : {1, 40}) {
      request->cmdDataIs(index, {0, 1});
      request->cmdDataIs(index, {0, 2});
      EXPECT_EQ(request->cmdData(index)->data, 2);
   }
   EXPECT_EQ(request->size(), 41u);
}

TEST(SpiEngineRequest, KeepsGapsAsGaps) {
   const auto request = Platform::make<SpiEngineRequest>(1u);
   request->cmdDataIs(9, {0, 9});
   EXPECT_EQ(request->size(), 10u);
   for (int index = 0; index < 9; ++index) {
      EXPECT_EQ(request->cmdData(index), std::nullopt) << index;
   }
   request->cmdDataIs(3, {0, 3});
   EXPECT_EQ(request->size(), 10u);
   EXPECT_EQ(request->cmdData(3)->data, 3);
}

TEST(SpiEngineRequest, TakesFourThousandAndNinetySixEntriesAndNoMore) {
   const auto request = Platform::make<SpiEngineRequest>(12u);
   request->cmdDataIs(4095, {0, 1});
   EXPECT_EQ(request->size(), 4096u);
   EXPECT_EQ(Failure([&] {
                request->cmdDataIs(4096, {0, 1});
             }),
             Failure::generic(EINVAL, "SPI request 12: entry 4096 is beyond the last one, 4095"));
   EXPECT_EQ(Failure([&] {
                request->cmdDataIs(0xffff, {0, 1});
             }),
             Failure::generic(EINVAL, "SPI request 12: entry 65535 is beyond the last one, 4095"));
   EXPECT_EQ(request->size(), 4096u);
}

TEST(SpiEngineRequest, KeepsWhatCameBack) {
   const auto request = Platform::make<SpiEngineRequest>(1u);
   request->receivedIs({1, 2});
   EXPECT_THAT(request->received(), ElementsAre(1, 2));
}

} // namespace
