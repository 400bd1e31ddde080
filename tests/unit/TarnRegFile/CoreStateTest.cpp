// What a core's owner says of it, and its stored form.

#include "TarnRegFile/CoreState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

#include "platform/entity/Errors.h"
#include "platform/tables/Table.h"

namespace TarnRegFile::Sable {
namespace {

static_assert(Platform::Tables::TableRecord<CoreState>);

CoreState sample() {
   CoreState state;
   state.phase = CorePhase::waiting;
   state.ready = true;
   state.valid = true;
   state.generation = 1;
   state.pid = 2;
   state.registersRead = 3;
   state.registersTotal = 4;
   state.lastRequest = 5;
   state.syncMicros = 6;
   state.errors = 7;
   state.losses = 8;
   state.accessWall = 9;
   state.accessMonotonic = 10;
   state.changedWall = 11;
   state.changedMonotonic = 0x1122334455667788;
   state.lastError = "why";
   return state;
}

using Buffer = std::array<std::uint8_t, CoreState::maxSerializedLen>;

Buffer stored(const CoreState& state) {
   Buffer buffer{};
   state.serialize(buffer.data());
   return buffer;
}

TEST(CoreState, ReadsWhatItWrote) {
   const CoreState state = sample();
   const Buffer buffer = stored(state);
   EXPECT_EQ(state.serializeLen(), 95u);
   EXPECT_EQ(CoreState::deserializeLen(buffer.data(), buffer.size()), 95u);
   CoreState read;
   read.deserialize(buffer.data(), 95);
   EXPECT_EQ(read, state);
}

TEST(CoreState, HasItsPlacesInTheStoredForm) {
   const Buffer buffer = stored(sample());
   EXPECT_EQ(buffer[0], 1u) << "the key";
   EXPECT_EQ(buffer[8], 1u) << "the layout";
   EXPECT_EQ(buffer[9], 4u) << "the phase";
   EXPECT_EQ(buffer[12], 1u);
   EXPECT_EQ(buffer[28], 5u);
   EXPECT_EQ(buffer[32], 6u);
   EXPECT_EQ(buffer[80], 0x88u);
   EXPECT_EQ(buffer[87], 0x11u);
   EXPECT_EQ(buffer[88], 3u);
   EXPECT_EQ(buffer[92], 'w');
}

TEST(CoreState, WhatIsNoStateIsRefused) {
   const Buffer good = stored(sample());
   const auto refused = [&good](std::size_t at, std::uint8_t byte, std::size_t length) {
      Buffer bad = good;
      bad[at] = byte;
      CoreState state = sample();
      if (CoreState::deserializeLen(bad.data(), length) != 0) {
         return false;
      }
      EXPECT_THROW(state.deserialize(bad.data(), length), Platform::RangeError);
      EXPECT_EQ(state, sample());
      return true;
   };
   EXPECT_FALSE(refused(0, 1, 95)) << "as it is";
   EXPECT_TRUE(refused(0, 1, 91)) << "too short";
   EXPECT_TRUE(refused(0, 1, 94)) << "too short for the text";
   EXPECT_TRUE(refused(8, 2, 95)) << "another layout";
   EXPECT_TRUE(refused(9, 6, 95)) << "no phase";
   EXPECT_TRUE(refused(10, 2, 95));
   EXPECT_TRUE(refused(11, 2, 95));
   EXPECT_TRUE(refused(88, 161, good.size())) << "more text than a record has";
}

TEST(CoreState, LongTextsAreCutBetweenCharacters) {
   CoreState state;
   state.lastErrorIs("short");
   EXPECT_EQ(state.lastError, "short");
   state.lastErrorIs(std::string(159, 'a') + "\xc3\xa9z");
   EXPECT_EQ(state.lastError, std::string(159, 'a'));
   state.lastErrorIs(std::string(500, 'b'));
   EXPECT_EQ(state.lastError, std::string(160, 'b'));
   state.lastError = std::string(500, 'c');
   EXPECT_EQ(state.serializeLen(), CoreState::maxSerializedLen);
}

} // namespace
} // namespace TarnRegFile::Sable
