#include "platform/entity/WireMessage.h"

#include <limits>
#include <string>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "tests/support/Failure.h"
#include "tests/support/WireBytes.h"

namespace {

namespace Wire = Platform::Wire;
using Platform::Bytes;
using Platform::MessageError;
using TestSupport::WireBytes;

/// Two numbers, of which the second may not be odd.
class Pair : public Platform::WireMessage<Pair> {
public:
   std::uint64_t a = 0;
   std::uint64_t b = 0;

   friend bool operator==(const Pair&, const Pair&) = default;

   std::size_t messageLen() const { return 2 + Wire::varintLen(a) + Wire::varintLen(b); }
   void writeFields(Wire::OutputStream& stream) const {
      stream.WriteTag(8);
      stream.WriteVarint64(a);
      stream.WriteTag(16);
      stream.WriteVarint64(b);
   }
   void readMessageField(std::uint32_t tag, Wire::InputStream& stream) {
      if (Wire::fieldOf(tag) == 1) {
         a = Wire::readVarint64(tag, stream);
      } else if (Wire::fieldOf(tag) == 2) {
         const std::uint64_t read = Wire::readVarint64(tag, stream);
         if (read % 2 != 0) {
            throw Platform::RangeError("odd");
         }
         b = read;
      } else {
         Wire::skipField(tag, stream);
      }
   }
};

Pair pairOf(std::uint64_t a, std::uint64_t b) {
   Pair pair;
   pair.a = a;
   pair.b = b;
   return pair;
}

TEST(WireMessage, AddsNothingToARecord) {
   EXPECT_EQ(sizeof(Pair), 16u);
   EXPECT_TRUE(std::is_trivially_copyable_v<Pair>);
}

TEST(WireMessage, IsAppendedToBytesBareOrBehindItsLength) {
   Bytes bytes{0xEE};
   pairOf(1, 300).writeMessage(bytes);
   EXPECT_EQ(bytes, (Bytes{0xEE, 8, 1, 16, 0xAC, 2}));
   pairOf(1, 2).writePbMessage(bytes);
   EXPECT_EQ(bytes, (Bytes{0xEE, 8, 1, 16, 0xAC, 2, 4, 8, 1, 16, 2}));
}

TEST(WireMessage, IsWrittenToStreamsAlike) {
   std::string text;
   {
      google::protobuf::io::StringOutputStream out(&text);
      Wire::OutputStream stream(&out);
      pairOf(1, 300).writeMessage(stream);
      pairOf(1, 2).writePbMessage(stream);
      EXPECT_FALSE(stream.HadError());
   }
   Bytes expected;
   pairOf(1, 300).writeMessage(expected);
   pairOf(1, 2).writePbMessage(expected);
   EXPECT_EQ(text, std::string(expected.begin(), expected.end()));
}

TEST(WireMessage, StreamThatIsFullSaysSoItself) {
   Bytes room(3);
   google::protobuf::io::ArrayOutputStream out(room.data(), static_cast<int>(room.size()));
   Wire::OutputStream stream(&out);
   pairOf(1, 300).writePbMessage(stream);
   stream.Trim();
   EXPECT_TRUE(stream.HadError());
}

TEST(WireMessage, IsReadFromTheFrontOfBytesWhichTellsHowManyItTook) {
   Bytes bytes;
   pairOf(1, 2).writePbMessage(bytes);
   pairOf(3, 400).writePbMessage(bytes);
   Pair pair;
   EXPECT_EQ(pair.readMessage(bytes), 5u);
   EXPECT_EQ(pair, pairOf(1, 2));
   EXPECT_EQ(pair.readMessage(std::span(bytes).subspan(5)), 6u);
   EXPECT_EQ(pair, pairOf(3, 400));
   EXPECT_EQ(Pair::constructFromPbMessage(bytes), pairOf(1, 2));
}

TEST(WireMessage, IsReadFromStreamsOneAfterTheOther) {
   Bytes bytes;
   pairOf(1, 2).writePbMessage(bytes);
   pairOf(3, 400).writePbMessage(bytes);
   for (const int piece : {-1, 1, 2, 3, 4}) {
      google::protobuf::io::ArrayInputStream in(bytes.data(), static_cast<int>(bytes.size()),
                                                piece);
      Wire::InputStream stream(&in);
      EXPECT_EQ(Pair::constructFromPbMessage(stream), pairOf(1, 2));
      Pair second;
      second.readMessage(stream);
      EXPECT_EQ(second, pairOf(3, 400));
      EXPECT_THROW(second.readMessage(stream), MessageError) << "there is no third";
      EXPECT_EQ(second, pairOf(3, 400));
   }
}

TEST(WireMessage, WhatIsNotInItStaysAsItWas) {
   Pair pair = pairOf(1, 2);
   pair.readMessage(WireBytes().varint(1, 5).prefixed());
   EXPECT_EQ(pair, pairOf(5, 2));
   EXPECT_EQ(Pair::constructFromPbMessage(WireBytes().varint(1, 5).prefixed()), pairOf(5, 0));
}

TEST(WireMessage, FailureOfAnyKindLeavesTheRecordAsItWas) {
   Pair pair = pairOf(1, 2);
   EXPECT_THROW(pair.readMessage(WireBytes().varint(1, 5).varint(2, 3).prefixed()),
                Platform::RangeError);
   EXPECT_EQ(pair, pairOf(1, 2));
   EXPECT_THROW(pair.readMessage(WireBytes().varint(1, 5).fixed32(2, 4).prefixed()), MessageError);
   EXPECT_EQ(pair, pairOf(1, 2));
   EXPECT_THROW(pair.readMessage(Bytes{4, 8, 5, 16}), MessageError);
   EXPECT_EQ(pair, pairOf(1, 2));
   EXPECT_THROW(pair.readMessage(Bytes{}), MessageError);
   EXPECT_EQ(pair, pairOf(1, 2));
}

} // namespace
