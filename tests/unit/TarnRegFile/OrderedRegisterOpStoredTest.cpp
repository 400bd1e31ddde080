// The form in which an OrderedRegisterOp is in a shared table.

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "platform/tables/Table.h"
#include "TarnRegFile/OrderedRegisterOp.h"
#include "tests/support/Failure.h"
#include "tests/unit/TarnRegFile/OrderedOperations.h"

namespace {

using OrderedOperations::documentedBytes;
using OrderedOperations::documentedOp;
using OrderedOperations::randomOp;
using Platform::Bytes;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::OpIndex;
using TarnRegFile::Sable::OrderedRegisterOp;
using TarnRegFile::Sable::UniqueId;
using TestSupport::Failure;

static_assert(Platform::Tables::TableRecord<OrderedRegisterOp>, "it is what the tables hold");

constexpr std::size_t slotLen = 1044;

Bytes storedOf(const OrderedRegisterOp& op) {
   Bytes bytes(op.serializeLen());
   op.serialize(bytes.data());
   return bytes;
}

/// A whole slot with `bytes` at its front and `rest` behind.
Bytes slotOf(Bytes bytes, std::uint8_t rest = 0xEE) {
   bytes.resize(slotLen, rest);
   return bytes;
}

/// A copy whose last byte is the last that may be read, to the byte, for the sanitizer's eyes.
OrderedRegisterOp readBack(const Bytes& bytes) {
   const std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[bytes.size()]);
   std::copy(bytes.begin(), bytes.end(), exact.get());
   EXPECT_EQ(OrderedRegisterOp::storedLen({exact.get(), bytes.size()}), bytes.size());
   OrderedRegisterOp op;
   op.deserialize(exact.get(), bytes.size());
   return op;
}

void put32(Bytes& bytes, std::size_t at, std::uint32_t value) {
   for (std::size_t i = 0; i < 4; ++i) {
      bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
   }
}

TEST(OrderedRegisterOpStored, IsAsDocumented) {
   EXPECT_EQ(storedOf(documentedOp()), documentedBytes("stored"));
   EXPECT_EQ(readBack(documentedBytes("stored")), documentedOp());
}

TEST(OrderedRegisterOpStored, EmptyRecordTakesTwentyBytes) {
   EXPECT_EQ(OrderedRegisterOp().serializeLen(), 20u);
   EXPECT_EQ(storedOf(OrderedRegisterOp()), Bytes(20, 0));
   EXPECT_FALSE(readBack(Bytes(20, 0)));
}

TEST(OrderedRegisterOpStored, FullRecordTakesAWholeSlot) {
   OrderedRegisterOp op(UniqueId(1));
   for (int i = 0; i < 128; ++i) {
      op.regKeyIs(OpIndex(i), CoreRegisterKey(static_cast<std::uint32_t>(i)));
      op.regValueIs(OpIndex(i), static_cast<std::uint32_t>(1000 + i));
   }
   EXPECT_EQ(OrderedRegisterOp::maxSerializedLen, slotLen);
   EXPECT_EQ(op.serializeLen(), slotLen);
   EXPECT_EQ(readBack(storedOf(op)), op);
}

TEST(OrderedRegisterOpStored, LengthCountsBothArrays) {
   for (const std::uint32_t keys : {0u, 1u, 127u, 128u}) {
      for (const std::uint32_t values : {0u, 1u, 127u, 128u}) {
         OrderedRegisterOp op;
         if (keys > 0) {
            op.regKeyIs(OpIndex(keys - 1), CoreRegisterKey(0x01020304));
         }
         if (values > 0) {
            op.regValueIs(OpIndex(values - 1), 0x05060708);
         }
         EXPECT_EQ(op.serializeLen(), 20 + 4 * (keys + values));
         EXPECT_EQ(readBack(storedOf(op)), op);
         EXPECT_EQ(OrderedRegisterOp::deserializeLen(slotOf(storedOf(op)).data(), slotLen),
                   slotLen);
      }
   }
}

TEST(OrderedRegisterOpStored, NothingIsWrittenBehindTheLength) {
   std::mt19937 random(1);
   for (int round = 0; round < 50; ++round) {
      const OrderedRegisterOp op = randomOp(random);
      Bytes slot(slotLen, 0xEE);
      op.serialize(slot.data());
      EXPECT_EQ(slot, slotOf(storedOf(op)));
   }
}

TEST(OrderedRegisterOpStored, ManyRecordsReadBackTheSame) {
   std::mt19937 random(2);
   for (int round = 0; round < 300; ++round) {
      const OrderedRegisterOp op = randomOp(random);
      EXPECT_EQ(readBack(storedOf(op)), op);
      OrderedRegisterOp fromSlot;
      fromSlot.deserialize(slotOf(storedOf(op)).data(), slotLen);
      EXPECT_EQ(fromSlot, op);
   }
}

TEST(OrderedRegisterOpStored, ThreeBytesBesideTheSizeAreCarriedAsTheyStand) {
   Bytes bytes = storedOf(documentedOp());
   bytes[9] = 0xA1;
   bytes[10] = 0xB2;
   bytes[11] = 0xC3;
   OrderedRegisterOp op = readBack(bytes);
   EXPECT_EQ(op, documentedOp()) << "they do not matter for equality";
   EXPECT_EQ(op.opSize(), 2);
   EXPECT_EQ(storedOf(op), bytes);

   op.opSizeIs(0xFF);
   bytes[8] = 0xFF;
   EXPECT_EQ(storedOf(op), bytes);
   const OrderedRegisterOp copy = op;
   EXPECT_EQ(storedOf(copy), bytes);
}

TEST(OrderedRegisterOpStored, ElementsBehindTheCountsStayWhenARecordIsReadOver) {
   OrderedRegisterOp op(UniqueId(1));
   for (int i = 0; i < 5; ++i) {
      op.regKeyIs(OpIndex(i), CoreRegisterKey(static_cast<std::uint32_t>(100 + i)));
   }
   const Bytes bytes = storedOf(documentedOp());
   op.deserialize(bytes.data(), bytes.size());
   EXPECT_EQ(op, documentedOp());
   op.regKeyIs(OpIndex(3), CoreRegisterKey(7));
   EXPECT_EQ(op.regKey(OpIndex(2)), CoreRegisterKey(102));
}

TEST(OrderedRegisterOpStored, LengthOfASlotIsTheWholeSlotIfBothCountsAreGood) {
   Bytes slot = slotOf(storedOf(documentedOp()));
   EXPECT_EQ(OrderedRegisterOp::deserializeLen(slot.data(), slotLen), slotLen);
   EXPECT_EQ(OrderedRegisterOp::deserializeLen(slot.data(), 0), slotLen)
      << "the length is not looked at";
   EXPECT_EQ(OrderedRegisterOp::storedLen(slot), 36u);
}

TEST(OrderedRegisterOpStored, SlotWithABadCountHasNoRecord) {
   for (const std::uint32_t count : {129u, 0x100u, 0x80000000u, 0xFFFFFFFFu}) {
      Bytes badKeys = slotOf(storedOf(documentedOp()));
      put32(badKeys, 12, count);
      EXPECT_EQ(OrderedRegisterOp::deserializeLen(badKeys.data(), slotLen), 0u);
      EXPECT_EQ(OrderedRegisterOp::storedLen(badKeys), 0u);

      Bytes badValues = slotOf(storedOf(documentedOp()));
      put32(badValues, 24, count);
      EXPECT_EQ(OrderedRegisterOp::deserializeLen(badValues.data(), slotLen), 0u);
      EXPECT_EQ(OrderedRegisterOp::storedLen(badValues), 0u);
   }
   // One too many, though all else would be an ordinary record.
   Bytes most = slotOf(Bytes(20, 0), 0);
   put32(most, 12, 129);
   EXPECT_EQ(OrderedRegisterOp::deserializeLen(most.data(), slotLen), 0u);
   EXPECT_EQ(OrderedRegisterOp::storedLen(most), 0u);
   put32(most, 12, 128);
   put32(most, 16 + 4 * 128, 128);
   EXPECT_EQ(OrderedRegisterOp::deserializeLen(most.data(), slotLen), slotLen);
   EXPECT_EQ(OrderedRegisterOp::storedLen(most), slotLen);
   put32(most, 16 + 4 * 128, 129);
   EXPECT_EQ(OrderedRegisterOp::deserializeLen(most.data(), slotLen), 0u);
}

TEST(OrderedRegisterOpStored, BadCountIsARangeErrorAndLeavesTheRecordAsItWas) {
   const Bytes good = slotOf(storedOf(documentedOp()));
   const OrderedRegisterOp before(UniqueId(99));
   OrderedRegisterOp op = before;

   Bytes bad = good;
   put32(bad, 12, 129);
   EXPECT_EQ(Failure([&] { op.deserialize(bad.data(), bad.size()); }),
             Failure::range("OrderedRegisterOp has 129 elements of regKey, more than 128"));
   EXPECT_EQ(op, before);

   bad = good;
   put32(bad, 24, 0xFFFFFFFF);
   EXPECT_EQ(
      Failure([&] { op.deserialize(bad.data(), bad.size()); }),
      Failure::range("OrderedRegisterOp has 4294967295 elements of regValue, more than 128"));
   EXPECT_EQ(op, before);
}

TEST(OrderedRegisterOpStored, WhatIsCutShortIsRefusedAtEveryByte) {
   const Bytes whole = storedOf(documentedOp());
   const OrderedRegisterOp before(UniqueId(99));
   for (std::size_t length = 0; length < whole.size(); ++length) {
      const std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[length]);
      std::copy_n(whole.begin(), length, exact.get());
      EXPECT_EQ(OrderedRegisterOp::storedLen({exact.get(), length}), 0u) << length;
      // Told is how much of it is known to be needed: first the counts', then the elements' bytes.
      const int needed = length < 20 ? 20 : length < 28 ? 28 : 36;
      OrderedRegisterOp op = before;
      EXPECT_EQ(Failure([&] { op.deserialize(exact.get(), length); }),
                Failure::range("stored OrderedRegisterOp takes " + std::to_string(needed) +
                               " bytes or more, there are " + std::to_string(length)));
      EXPECT_EQ(op, before);
   }
}

TEST(OrderedRegisterOpStored, RecordWithOverwrittenCountsIsNotWritten) {
   // Counts lie where the stored form has them; only a wild write gets them out of range.
   for (const std::size_t at : {std::size_t{12}, std::size_t{16 + 4 * 128}}) {
      OrderedRegisterOp op = documentedOp();
      const std::uint32_t count = 129;
      std::memcpy(reinterpret_cast<std::uint8_t*>(&op) + at, &count, sizeof count);
      Bytes slot(slotLen + 4, 0xEE);
      EXPECT_EQ(Failure([&] { op.serialize(slot.data()); }),
                Failure::range(std::string("OrderedRegisterOp has 129 elements of ") +
                               (at == 12 ? "regKey" : "regValue") + ", more than 128"));
      EXPECT_EQ(slot, Bytes(slotLen + 4, 0xEE));
   }
}

} // namespace
