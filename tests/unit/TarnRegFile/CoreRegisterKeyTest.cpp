#include "TarnRegFile/CoreRegisterKey.h"

#include <type_traits>
#include <unordered_set>
#include <vector>

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash_testing.h>
#include <gtest/gtest.h>

#include "platform/entity/Value.h"
#include "tests/support/Failure.h"
#include "tests/support/ordered_register_op.pb.h"
#include "tests/support/WireBytes.h"

namespace {

using Platform::Bytes;
using TarnRegFile::Sable::CoreRegisterKey;
using TestSupport::Failure;
using TestSupport::WireBytes;
using Traits = Platform::ValueTraits<CoreRegisterKey>;

constexpr const char* text = "Value('TarnRegFile::Sable::CoreRegisterKey', address=305419896)";

TEST(CoreRegisterKey, IsAnAddressAndZeroAtFirst) {
   EXPECT_EQ(CoreRegisterKey().address(), 0u);
   EXPECT_EQ(CoreRegisterKey(0xFFFFFFFF).address(), 0xFFFFFFFFu);
   EXPECT_EQ(sizeof(CoreRegisterKey), 4u);
   EXPECT_TRUE(std::is_trivially_copyable_v<CoreRegisterKey>);
}

TEST(CoreRegisterKey, IsOrderedAndEqualAsItsAddress) {
   EXPECT_EQ(CoreRegisterKey(5), CoreRegisterKey(5));
   EXPECT_NE(CoreRegisterKey(5), CoreRegisterKey(6));
   EXPECT_LT(CoreRegisterKey(5), CoreRegisterKey(6));
   EXPECT_LT(CoreRegisterKey(0x7FFFFFFF), CoreRegisterKey(0x80000000));
}

TEST(CoreRegisterKey, HashesWithBothLibraries) {
   const std::vector<CoreRegisterKey> keys{CoreRegisterKey(), CoreRegisterKey(4),
                                           CoreRegisterKey(UINT32_MAX)};
   const std::unordered_set<CoreRegisterKey> standard(keys.begin(), keys.end());
   EXPECT_EQ(standard.size(), 3u);
   EXPECT_TRUE(standard.contains(CoreRegisterKey(4)));
   const absl::flat_hash_set<CoreRegisterKey> flat(keys.begin(), keys.end());
   EXPECT_EQ(flat.size(), 3u);
   EXPECT_TRUE(flat.contains(CoreRegisterKey(4)));
   EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(keys));
}

TEST(CoreRegisterKey, HasAStringFormThatReadsBack) {
   EXPECT_EQ(Traits::name(), "TarnRegFile::Sable::CoreRegisterKey");
   EXPECT_EQ(Traits::write(CoreRegisterKey(0x12345678)), text);
   const std::string more = std::string(text) + ", more";
   Platform::TextRange range(more);
   EXPECT_EQ(Traits::read(range), CoreRegisterKey(0x12345678));
   EXPECT_EQ(range.rest(), ", more");
}

TEST(CoreRegisterKey, MayBeTypedAsABareAddress) {
   const Platform::ValueType& type = Platform::valueType<CoreRegisterKey>();
   EXPECT_EQ(std::any_cast<CoreRegisterKey>(type.fromText("0x10", nullptr)), CoreRegisterKey(16));
   EXPECT_EQ(std::any_cast<CoreRegisterKey>(type.fromText("16", nullptr)), CoreRegisterKey(16));
}

TEST(CoreRegisterKey, TextThatIsNoKeyIsRefusedAndLeftWhereItIs) {
   for (const char* bad : {"", "x", "-1", "4294967296", "Value('TarnRegFile::Sable::CoreRegister')",
                           "Value('TarnRegFile::Sable::CoreRegisterKey', address=4294967296)",
                           "Value('TarnRegFile::Sable::CoreRegisterKey', address=1"}) {
      Platform::TextRange range(bad);
      EXPECT_THROW(Traits::read(range), Platform::RangeError) << bad;
      EXPECT_EQ(range.rest(), bad);
   }
}

TEST(CoreRegisterKey, IsStoredInFourBytesLeastSignificantFirst) {
   EXPECT_EQ(CoreRegisterKey::serializedLen, 4u);
   Bytes bytes(6, 0xEE);
   CoreRegisterKey(0x12345678).serialize(bytes.data() + 1);
   EXPECT_EQ(bytes, (Bytes{0xEE, 0x78, 0x56, 0x34, 0x12, 0xEE}));
   EXPECT_EQ(CoreRegisterKey::deserialized(bytes.data() + 1), CoreRegisterKey(0x12345678));
}

TEST(CoreRegisterKey, IsAMessageWithTheAddressInField599AlsoWhenThatIsZero) {
   for (const std::uint32_t address : {0u, 1u, 127u, 128u, 0x12345678u, UINT32_MAX}) {
      OrderedWire::CoreRegisterKey expected;
      expected.set_address(address);
      Bytes bare;
      CoreRegisterKey(address).writeMessage(bare);
      EXPECT_EQ(std::string(bare.begin(), bare.end()), expected.SerializeAsString());
      EXPECT_EQ(bare, WireBytes().varint(599, address).bytes());
      EXPECT_EQ(CoreRegisterKey(address).messageLen(), bare.size());

      Bytes prefixed;
      CoreRegisterKey(address).writePbMessage(prefixed);
      EXPECT_EQ(prefixed, WireBytes().raw(bare).prefixed());
      EXPECT_EQ(CoreRegisterKey::constructFromPbMessage(prefixed), CoreRegisterKey(address));
   }
}

TEST(CoreRegisterKey, AddressKeepsTheLowerHalfOfALongerNumberAsInProtobuf) {
   const WireBytes message = WireBytes().varint(599, 0xABCD12345678);
   OrderedWire::CoreRegisterKey theirs;
   ASSERT_TRUE(theirs.ParseFromString({message.bytes().begin(), message.bytes().end()}));
   EXPECT_EQ(theirs.address(), 0x12345678u);
   EXPECT_EQ(CoreRegisterKey::constructFromPbMessage(message.prefixed()),
             CoreRegisterKey(0x12345678));
}

TEST(CoreRegisterKey, OtherFieldsAreSkippedAndTheLastAddressCounts) {
   const Bytes bytes = WireBytes()
                          .varint(598, 5)
                          .varint(599, 6)
                          .section(600, WireBytes().varint(599, 9))
                          .group(1, WireBytes().varint(599, 9))
                          .varint(599, 7)
                          .fixed32(1, 8)
                          .fixed64(2, 8)
                          .prefixed();
   EXPECT_EQ(CoreRegisterKey::constructFromPbMessage(bytes), CoreRegisterKey(7));
   EXPECT_EQ(CoreRegisterKey::constructFromPbMessage(Bytes{0}), CoreRegisterKey());
}

TEST(CoreRegisterKey, AddressOfAnotherWireTypeIsRefusedAndLeavesTheKeyAsItWas) {
   for (const WireBytes& wrong : {WireBytes().fixed32(599, 5), WireBytes().fixed64(599, 5),
                                  WireBytes().section(599, WireBytes().rawVarint(5)),
                                  WireBytes().group(599, WireBytes()), WireBytes().tag(599, 4)}) {
      CoreRegisterKey key(9);
      EXPECT_EQ(
         Failure([&] { key.readMessage(WireBytes().varint(599, 5).raw(wrong).prefixed()); }).text,
         "Unexpected error when reading Protobuf bytes");
      EXPECT_EQ(key, CoreRegisterKey(9));
   }
}

} // namespace
