#include "platform/entity/WireFormat.h"

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "tests/support/WireBytes.h"

namespace {

namespace Wire = Platform::Wire;
using google::protobuf::io::ArrayInputStream;
using Platform::Bytes;
using Platform::MessageError;
using TestSupport::WireBytes;
using Wire::InputStream;
using Wire::Section;

constexpr const char* unexpected = "Unexpected error when reading Protobuf bytes";
constexpr std::uint64_t maxTag = std::numeric_limits<std::uint32_t>::max();

struct Pieces {
   Pieces(const Bytes& all, int piece)
      : bytes(all), stream(bytes.data(), static_cast<int>(bytes.size()), piece) {}

   Bytes bytes;
   ArrayInputStream stream;
};

/// A stream over a whole buffer, in pieces of any size.
class Stream : private Pieces, public InputStream {
public:
   explicit Stream(const Bytes& all, int piece = -1)
      : Pieces(all, piece), InputStream(&this->stream) {}
};

/// The text of the MessageError that `body` throws; none if it throws none.
std::optional<std::string> messageErrorOf(const std::function<void()>& body) {
   try {
      body();
   } catch (const MessageError& error) {
      return error.what();
   }
   return std::nullopt;
}

/// Reads the tags of a message behind its length, skipping all the fields.
std::vector<std::uint32_t> tagsOf(InputStream& stream) {
   std::vector<std::uint32_t> tags;
   Section section(stream);
   while (const std::uint32_t tag = section.nextTag()) {
      tags.push_back(tag);
      Wire::skipField(tag, stream);
   }
   return tags;
}

bool isRefused(const Bytes& message) {
   Stream whole(message);
   Stream pieces(message, 1);
   InputStream array(message.data(), static_cast<int>(message.size()));
   const auto text = messageErrorOf([&] { tagsOf(whole); });
   EXPECT_EQ(messageErrorOf([&] { tagsOf(pieces); }), text);
   EXPECT_EQ(messageErrorOf([&] { tagsOf(array); }), text);
   EXPECT_EQ(text.value_or(unexpected), unexpected);
   return text.has_value();
}

WireBytes everyType() {
   return WireBytes()
      .varint(1, UINT64_MAX)
      .fixed64(2, 1)
      .section(3, WireBytes().varint(1, 1))
      .group(4, WireBytes().varint(1, 1).group(5, WireBytes()).section(6, WireBytes()))
      .fixed32(536870911, 1);
}

TEST(WireFormat, TagIsNumberAndType) {
   EXPECT_EQ(Wire::tagOf(599, Wire::Type::varint), 599u * 8);
   EXPECT_EQ(Wire::tagOf(15702, Wire::Type::lengthDelimited), 15702u * 8 + 2);
   EXPECT_EQ(Wire::fieldOf(Wire::tagOf(536870911, Wire::Type::fixed32)), 536870911u);
   EXPECT_EQ(Wire::typeOf(Wire::tagOf(7, Wire::Type::endGroup)), Wire::Type::endGroup);
}

TEST(WireFormat, LengthOfAVarintIsWhatProtobufWrites) {
   for (unsigned bit = 0; bit < 64; ++bit) {
      const std::uint64_t power = std::uint64_t{1} << bit;
      for (const std::uint64_t value : {power - 1, power, power + 1, ~power}) {
         EXPECT_EQ(Wire::varintLen(value),
                   google::protobuf::io::CodedOutputStream::VarintSize64(value))
            << value;
      }
   }
   EXPECT_EQ(Wire::varintLen(UINT64_MAX), 10u);
}

TEST(WireFormat, ReadsFieldsOfItsTypesAndNoOthers) {
   const Bytes number = WireBytes().rawVarint(0x123456789A).bytes();
   const Bytes fixed = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
   for (const Wire::Type type :
        {Wire::Type::varint, Wire::Type::fixed64, Wire::Type::lengthDelimited,
         Wire::Type::startGroup, Wire::Type::endGroup, Wire::Type::fixed32}) {
      const std::uint32_t tag = Wire::tagOf(9, type);
      if (type == Wire::Type::varint) {
         Stream stream(number);
         EXPECT_EQ(Wire::readVarint64(tag, stream), 0x123456789Au);
         Stream lower(number);
         EXPECT_EQ(Wire::readVarint32(tag, lower), 0x3456789Au);
      } else {
         Stream stream(number);
         EXPECT_EQ(messageErrorOf([&] { Wire::readVarint64(tag, stream); }), unexpected);
         EXPECT_EQ(messageErrorOf([&] { Wire::readVarint32(tag, stream); }), unexpected);
         EXPECT_EQ(stream.CurrentPosition(), 0) << "a wrong type was read all the same";
      }
      Stream stream(fixed);
      if (type == Wire::Type::fixed64) {
         EXPECT_EQ(Wire::readFixed64(tag, stream), 0x1122334455667788u);
      } else {
         EXPECT_EQ(messageErrorOf([&] { Wire::readFixed64(tag, stream); }), unexpected);
      }
      EXPECT_EQ(messageErrorOf([&] { Wire::requireType(tag, Wire::Type::fixed32); }).has_value(),
                type != Wire::Type::fixed32);
   }
}

TEST(WireFormat, VarintThatDoesNotEndIsRefused) {
   const std::uint32_t tag = Wire::tagOf(1, Wire::Type::varint);
   for (const Bytes& bytes : {Bytes{}, Bytes{0x80}, Bytes(9, 0xFF), Bytes(11, 0x80)}) {
      Stream stream(bytes);
      EXPECT_EQ(messageErrorOf([&] { Wire::readVarint64(tag, stream); }), unexpected);
   }
}

TEST(WireFormat, SkipsEveryTypeAndStopsAtTheEnd) {
   const Bytes message = everyType().prefixed();
   for (int piece = 1; piece < 12; ++piece) {
      Bytes more = message;
      more.push_back(0x2A);
      Stream stream(more, piece);
      EXPECT_EQ(tagsOf(stream), (std::vector<std::uint32_t>{8, 17, 26, 35, 4294967293}));
      EXPECT_EQ(stream.CurrentPosition(), static_cast<int>(message.size()));
      std::uint32_t behind = 0;
      EXPECT_TRUE(stream.ReadVarint32(&behind));
      EXPECT_EQ(behind, 0x2Au);
   }
}

TEST(WireFormat, MessageMayBeEmpty) {
   Stream stream(Bytes{0});
   EXPECT_TRUE(tagsOf(stream).empty());
   EXPECT_TRUE(isRefused({})) << "there is no length";
}

TEST(WireFormat, MessageThatIsCutShortIsRefusedWhereverItIs) {
   const Bytes message = everyType().prefixed();
   for (std::size_t size = 0; size < message.size(); ++size) {
      EXPECT_TRUE(isRefused(Bytes(message.begin(), message.begin() + size))) << size;
   }
   EXPECT_FALSE(isRefused(message));
}

TEST(WireFormat, LengthThatRunsPastTheEndIsRefused) {
   for (const std::uint64_t length :
        {std::uint64_t{3}, std::uint64_t{1} << 20, std::uint64_t{INT32_MAX},
         std::uint64_t{INT32_MAX} + 1, UINT64_MAX}) {
      EXPECT_TRUE(isRefused(WireBytes().rawVarint(length).varint(1, 1).bytes())) << length;
      EXPECT_TRUE(isRefused(WireBytes().tag(1, 2).rawVarint(length).rawVarint(1).prefixed()))
         << length;
   }
   EXPECT_FALSE(isRefused(WireBytes().rawVarint(2).varint(1, 1).bytes()));
}

TEST(WireFormat, FieldThatRunsPastItsSectionIsRefusedThoughTheBufferGoesOn) {
   for (const WireBytes& field :
        {WireBytes().varint(1, 300), WireBytes().fixed64(1, 1), WireBytes().fixed32(1, 1),
         WireBytes().section(1, WireBytes().varint(1, 1)), WireBytes().group(1, WireBytes())}) {
      const Bytes bytes =
         WireBytes().rawVarint(field.bytes().size() - 1).raw(field).raw(Bytes(20, 0)).bytes();
      EXPECT_TRUE(isRefused(bytes));
   }
}

TEST(WireFormat, SectionMayNotBeLongerThanTheOneAroundIt) {
   // Three bytes are left in the outer one where the inner one claims four.
   const Bytes bytes =
      WireBytes().rawVarint(5).tag(1, 2).rawVarint(4).raw(Bytes{8, 1, 8, 1, 8, 1}).bytes();
   for (const int piece : {-1, 1, 2, 3}) {
      Stream stream(bytes, piece);
      Section outer(stream);
      EXPECT_EQ(outer.nextTag(), 10u);
      EXPECT_EQ(messageErrorOf([&] { Section inner(stream); }), unexpected);
   }
}

TEST(WireFormat, SectionMayFillTheOneAroundItExactly) {
   const Bytes bytes = WireBytes().section(1, WireBytes().varint(2, 1)).prefixed();
   Stream stream(bytes);
   Section outer(stream);
   EXPECT_EQ(outer.nextTag(), 10u);
   {
      Section inner(stream);
      const std::uint32_t tag = inner.nextTag();
      EXPECT_EQ(tag, 16u);
      EXPECT_EQ(Wire::readVarint32(tag, stream), 1u);
      EXPECT_EQ(inner.nextTag(), 0u);
      EXPECT_EQ(inner.nextTag(), 0u) << "it ends once and for all";
   }
   EXPECT_EQ(outer.nextTag(), 0u);
}

TEST(WireFormat, SectionEndsWithItsObjectAlsoWhenReadingFails) {
   const Bytes bytes = WireBytes().section(1, WireBytes().raw(Bytes{0xFF})).varint(2, 5).prefixed();
   Stream stream(bytes);
   Section outer(stream);
   EXPECT_EQ(outer.nextTag(), 10u);
   EXPECT_EQ(messageErrorOf([&] {
                Section inner(stream);
                inner.nextTag();
             }),
             unexpected);
   EXPECT_EQ(stream.BytesUntilLimit(), 2) << "the outer section's end is in force again";
}

TEST(WireFormat, TagsThatCannotBeAreRefused) {
   EXPECT_TRUE(isRefused(WireBytes().rawVarint(0).prefixed())) << "an ordinary end has no tag of 0";
   EXPECT_TRUE(isRefused(WireBytes().varint(0, 1).prefixed())) << "fields are counted from 1";
   EXPECT_TRUE(isRefused(WireBytes().fixed32(0, 1).prefixed()));
   EXPECT_TRUE(isRefused(WireBytes().tag(1, 6).rawVarint(1).prefixed()));
   EXPECT_TRUE(isRefused(WireBytes().tag(1, 7).rawVarint(1).prefixed()));
   EXPECT_TRUE(isRefused(WireBytes().rawVarint(maxTag + 1 + 8).rawVarint(1).prefixed()))
      << "would be field 1 in its lower 32 bits";
   EXPECT_TRUE(isRefused(WireBytes().raw(Bytes(10, 0xFF)).prefixed()));
}

TEST(WireFormat, GroupsMustEndAsTheyBegan) {
   EXPECT_TRUE(isRefused(WireBytes().tag(1, 4).prefixed())) << "no group to end";
   EXPECT_TRUE(isRefused(WireBytes().tag(1, 3).tag(2, 4).prefixed()));
   EXPECT_TRUE(isRefused(WireBytes().tag(1, 3).tag(2, 3).tag(1, 4).tag(2, 4).prefixed()));
   EXPECT_TRUE(isRefused(WireBytes().tag(1, 3).prefixed()));
   EXPECT_TRUE(isRefused(WireBytes().tag(1, 3).rawVarint(0).tag(1, 4).prefixed()));
   // The group may not end outside of its message.
   EXPECT_TRUE(isRefused(WireBytes().rawVarint(1).group(1, WireBytes()).bytes()));
}

TEST(WireFormat, GroupsAreNestedAsDeepAsTheStreamAllowsAndNoDeeper) {
   const auto nested = [](int depth) {
      WireBytes bytes;
      for (int i = 0; i < depth; ++i) {
         bytes.tag(1, 3);
      }
      for (int i = 0; i < depth; ++i) {
         bytes.tag(1, 4);
      }
      return bytes.prefixed();
   };
   const int most = InputStream::GetDefaultRecursionLimit();
   EXPECT_FALSE(isRefused(nested(most)));
   EXPECT_TRUE(isRefused(nested(most + 1)));
   EXPECT_TRUE(isRefused(nested(1000000))) << "and does not run out of stack";

   WireBytes manyInTurn;
   for (int i = 0; i < 3 * most; ++i) {
      manyInTurn.group(1, WireBytes().group(2, WireBytes()));
   }
   EXPECT_FALSE(isRefused(manyInTurn.prefixed())) << "depth is given back";
}

} // namespace
