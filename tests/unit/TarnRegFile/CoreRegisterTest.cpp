#include "TarnRegFile/CoreRegister.h"

#include <type_traits>

#include <gtest/gtest.h>

#include "platform/entity/Value.h"
#include "platform/tables/Table.h"
#include "tests/support/Failure.h"

namespace {

using Platform::Bytes;
using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::CoreRegisterKey;
using TestSupport::Failure;
using Traits = Platform::ValueTraits<CoreRegister>;

const CoreRegister some(CoreRegisterKey(0x12345678), 0x9ABCDEF0);
const Bytes stored{0x78, 0x56, 0x34, 0x12, 0xF0, 0xDE, 0xBC, 0x9A};

TEST(CoreRegister, HasAKeyAndAValueThatAreZeroAtFirst) {
   EXPECT_EQ(CoreRegister().key(), CoreRegisterKey());
   EXPECT_EQ(CoreRegister().value(), 0u);
   EXPECT_EQ(some.key(), CoreRegisterKey(0x12345678));
   EXPECT_EQ(some.value(), 0x9ABCDEF0u);
   EXPECT_EQ(CoreRegister(CoreRegisterKey(4)).value(), 0u);
   CoreRegister changed = some;
   changed.valueIs(5);
   EXPECT_EQ(changed, CoreRegister(some.key(), 5));
}

TEST(CoreRegister, IsEqualWhenKeyAndValueAre) {
   const CoreRegister record(CoreRegisterKey(1), 2);
   EXPECT_EQ(record, CoreRegister(CoreRegisterKey(1), 2));
   EXPECT_NE(record, CoreRegister(CoreRegisterKey(1), 3));
   EXPECT_NE(record, CoreRegister(CoreRegisterKey(2), 2));
}

TEST(CoreRegister, IsTwoWordsThatAreCopiedAsTheyAre) {
   EXPECT_EQ(sizeof(CoreRegister), 8u);
   EXPECT_TRUE(std::is_trivially_copyable_v<CoreRegister>);
}

TEST(CoreRegister, HasAStringFormThatReadsBack) {
   const std::string text =
      "Value('TarnRegFile::Sable::CoreRegister', "
      "key=Value('TarnRegFile::Sable::CoreRegisterKey', address=305419896), value=2596069104)";
   EXPECT_EQ(Traits::name(), "TarnRegFile::Sable::CoreRegister");
   EXPECT_EQ(Traits::write(some), text);
   const std::string more = text + ", more";
   Platform::TextRange range(more);
   EXPECT_EQ(Traits::read(range), some);
   EXPECT_EQ(range.rest(), ", more");
   Platform::TextRange typed("Value('TarnRegFile::Sable::CoreRegister', key=0x10, value=0b11)");
   EXPECT_EQ(CoreRegister(typed), CoreRegister(CoreRegisterKey(16), 3));
   for (const std::string& bad :
        {std::string(), std::string("5"), text.substr(0, text.size() - 1)}) {
      Platform::TextRange wrong(bad);
      EXPECT_THROW(Traits::read(wrong), Platform::RangeError) << bad;
      EXPECT_EQ(wrong.rest(), bad);
   }
}

static_assert(Platform::Tables::TableRecord<CoreRegister>, "it is what the tables hold");

TEST(CoreRegister, IsStoredInEightBytesKeyFirst) {
   EXPECT_EQ(CoreRegister::maxSerializedLen, 8u);
   EXPECT_EQ(some.serializeLen(), 8u);
   Bytes bytes(10, 0xEE);
   some.serialize(bytes.data() + 1);
   EXPECT_EQ(bytes.front(), 0xEE);
   EXPECT_EQ(bytes.back(), 0xEE);
   EXPECT_EQ(Bytes(bytes.begin() + 1, bytes.end() - 1), stored);
}

TEST(CoreRegister, IsReadFromWhatIsStoredAndLooksAtNoMore) {
   Bytes longer = stored;
   longer.push_back(0xEE);
   for (const Bytes& bytes : {stored, longer}) {
      EXPECT_EQ(CoreRegister::deserializeLen(bytes.data(), bytes.size()), 8u);
      CoreRegister read;
      read.deserialize(bytes.data(), bytes.size());
      EXPECT_EQ(read, some);
   }
}

TEST(CoreRegister, WhatIsTooShortIsRefusedAndLeavesTheRecordAsItWas) {
   for (std::size_t length = 0; length < 8; ++length) {
      const Bytes bytes(stored.begin(), stored.begin() + length);
      EXPECT_EQ(CoreRegister::deserializeLen(bytes.data(), length), 0u);
      CoreRegister record(CoreRegisterKey(1), 2);
      EXPECT_EQ(
         Failure([&] { record.deserialize(bytes.data(), length); }),
         Failure::range("stored CoreRegister takes 8 bytes, there are " + std::to_string(length)));
      EXPECT_EQ(record, CoreRegister(CoreRegisterKey(1), 2));
   }
}

} // namespace
