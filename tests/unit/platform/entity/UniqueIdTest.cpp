#include "platform/entity/UniqueId.h"

#include <set>
#include <thread>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash_testing.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/entity/Value.h"
#include "tests/support/Failure.h"
#include "tests/support/ordered_register_op.pb.h"
#include "tests/support/WireBytes.h"

namespace {

using Platform::Bytes;
using Platform::MessageError;
using Platform::UniqueId;
using TestSupport::Failure;
using TestSupport::WireBytes;
using Traits = Platform::ValueTraits<UniqueId>;

constexpr std::uint64_t someValue = 0x1122334455667788;

TEST(UniqueId, IsNoneAtFirst) {
   EXPECT_EQ(UniqueId().value(), 0u);
   EXPECT_FALSE(UniqueId());
   EXPECT_TRUE(UniqueId(1));
   EXPECT_EQ(UniqueId(), UniqueId(0));
}

TEST(UniqueId, IsAWordThatIsCopiedAsItIs) {
   EXPECT_EQ(sizeof(UniqueId), sizeof(std::uint64_t));
   EXPECT_TRUE(std::is_trivially_copyable_v<UniqueId>);
   static_assert(UniqueId(3).value() == 3);
}

TEST(UniqueId, IsOrderedAndEqualAsItsNumber) {
   EXPECT_EQ(UniqueId(someValue), UniqueId(someValue));
   EXPECT_NE(UniqueId(1), UniqueId(std::uint64_t{1} << 32 | 1));
   EXPECT_LT(UniqueId(1), UniqueId(2));
   EXPECT_LT(UniqueId(INT64_MAX), UniqueId(UINT64_MAX));
}

TEST(UniqueId, HashesWithBothLibraries) {
   const std::vector<UniqueId> ids{UniqueId(), UniqueId(1), UniqueId(someValue)};
   const std::unordered_set<UniqueId> standard(ids.begin(), ids.end());
   EXPECT_EQ(standard.size(), 3u);
   EXPECT_TRUE(standard.contains(UniqueId(someValue)));
   const absl::flat_hash_set<UniqueId> flat(ids.begin(), ids.end());
   EXPECT_EQ(flat.size(), 3u);
   EXPECT_TRUE(flat.contains(UniqueId(someValue)));
   EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(ids));
}

TEST(UniqueId, FreshOnesAreNeverNoneAndNeverTheSame) {
   std::set<UniqueId> seen;
   for (int i = 0; i < 10000; ++i) {
      const UniqueId id = UniqueId::fresh();
      EXPECT_TRUE(id);
      EXPECT_TRUE(seen.insert(id).second);
   }
}

TEST(UniqueId, FreshOnesOfSeveralThreadsAreDifferent) {
   constexpr std::size_t each = 5000;
   std::vector<std::vector<UniqueId>> made(4);
   {
      std::vector<std::jthread> threads;
      for (auto& ids : made) {
         threads.emplace_back([&ids] {
            for (std::size_t i = 0; i < each; ++i) {
               ids.push_back(UniqueId::fresh());
            }
         });
      }
   }
   std::set<UniqueId> seen;
   for (const auto& ids : made) {
      seen.insert(ids.begin(), ids.end());
   }
   EXPECT_EQ(seen.size(), made.size() * each);
}

TEST(UniqueId, FreshOnesOfAForkedChildAreNotThoseOfItsParent) {
   const UniqueId before = UniqueId::fresh();
   int ends[2];
   ASSERT_EQ(pipe(ends), 0);
   const pid_t child = fork();
   ASSERT_GE(child, 0);
   if (child == 0) {
      const std::uint64_t value = UniqueId::fresh().value();
      const bool isSent = write(ends[1], &value, sizeof value) == sizeof value;
      _exit(isSent ? 0 : 1);
   }
   std::uint64_t ofChild = 0;
   EXPECT_EQ(read(ends[0], &ofChild, sizeof ofChild), static_cast<ssize_t>(sizeof ofChild));
   int status = -1;
   EXPECT_EQ(waitpid(child, &status, 0), child);
   EXPECT_EQ(status, 0);
   close(ends[0]);
   close(ends[1]);

   // The parent goes on where it was, and the child is nowhere near it.
   EXPECT_EQ(UniqueId::fresh().value(), before.value() + 1);
   EXPECT_GT(ofChild - before.value(), 1u << 20);
   EXPECT_NE(ofChild, 0u);
}

TEST(UniqueId, HasAStringFormOfSixteenDigitsThatReadsBack) {
   EXPECT_EQ(Traits::name(), "Platform::UniqueId");
   EXPECT_EQ(UniqueId().stringRep(), "0x0000000000000000");
   EXPECT_EQ(UniqueId(0xBEEF).stringRep(), "0x000000000000beef");
   for (const std::uint64_t value : {std::uint64_t{0}, someValue, UINT64_MAX}) {
      const std::string text = Traits::write(UniqueId(value)) + ", more";
      Platform::TextRange range(text);
      EXPECT_EQ(Traits::read(range), UniqueId(value));
      EXPECT_EQ(range.rest(), ", more");
   }
   Platform::TextRange decimal("17");
   EXPECT_EQ(UniqueId(decimal), UniqueId(17));
}

TEST(UniqueId, TextThatIsNoNumberIsRefusedAndLeftWhereItIs) {
   for (const char* bad : {"", "none", "-1", "0x", "18446744073709551616"}) {
      Platform::TextRange range(bad);
      EXPECT_THROW(Traits::read(range), Platform::RangeError) << bad;
      EXPECT_EQ(range.rest(), bad);
   }
}

TEST(UniqueId, IsStoredInEightBytesLeastSignificantFirst) {
   EXPECT_EQ(UniqueId::serializedLen, 8u);
   Bytes bytes(10, 0xEE);
   UniqueId(someValue).serialize(bytes.data() + 1);
   EXPECT_EQ(bytes, (Bytes{0xEE, 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11, 0xEE}));
   EXPECT_EQ(UniqueId::deserialized(bytes.data() + 1), UniqueId(someValue));
}

TEST(UniqueId, IsAMessageOfOneFixedFieldAlsoWhenItIsNone) {
   for (const std::uint64_t value : {std::uint64_t{0}, someValue, UINT64_MAX}) {
      OrderedWire::UniqueId expected;
      expected.set_value(value);
      Bytes bare;
      UniqueId(value).writeMessage(bare);
      EXPECT_EQ(std::string(bare.begin(), bare.end()), expected.SerializeAsString());
      EXPECT_EQ(bare.size(), 9u);
      EXPECT_EQ(UniqueId(value).messageLen(), 9u);

      Bytes prefixed;
      UniqueId(value).writePbMessage(prefixed);
      EXPECT_EQ(prefixed, WireBytes().raw(bare).prefixed());
      EXPECT_EQ(UniqueId::constructFromPbMessage(prefixed), UniqueId(value));
   }
}

TEST(UniqueId, MessageWithoutItsFieldIsNoneOrWhatWasThere) {
   EXPECT_EQ(UniqueId::constructFromPbMessage(Bytes{0}), UniqueId());
   UniqueId id(someValue);
   EXPECT_EQ(id.readMessage(Bytes{0}), 1u);
   EXPECT_EQ(id, UniqueId(someValue));
}

TEST(UniqueId, OtherFieldsOfTheMessageAreSkippedAndTheLastValueCounts) {
   const Bytes bytes = WireBytes()
                          .varint(2, 5)
                          .fixed64(1, 6)
                          .section(3, WireBytes().fixed64(1, 9))
                          .fixed64(1, 7)
                          .group(1000, WireBytes().fixed64(1, 9))
                          .fixed32(4, 8)
                          .prefixed();
   EXPECT_EQ(UniqueId::constructFromPbMessage(bytes), UniqueId(7));
}

TEST(UniqueId, FieldOfAnotherWireTypeIsRefusedAndLeavesTheIdAsItWas) {
   for (const WireBytes& wrong :
        {WireBytes().varint(1, 5), WireBytes().fixed32(1, 5),
         WireBytes().section(1, WireBytes().fixed64(1, 5)), WireBytes().group(1, WireBytes())}) {
      UniqueId id(someValue);
      EXPECT_EQ(
         Failure([&] { id.readMessage(WireBytes().fixed64(1, 5).raw(wrong).prefixed()); }).text,
         "Unexpected error when reading Protobuf bytes");
      EXPECT_EQ(id, UniqueId(someValue));
   }
}

} // namespace
