// The protobuf form of an OrderedRegisterOp, against protobuf's own code for the same messages.

#include <algorithm>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "TarnRegFile/OrderedRegisterOp.h"
#include "tests/support/Failure.h"
#include "tests/support/ordered_register_op.pb.h"
#include "tests/support/WireBytes.h"
#include "tests/unit/TarnRegFile/OrderedOperations.h"

namespace {

using google::protobuf::io::ArrayInputStream;
using google::protobuf::io::CodedInputStream;
using google::protobuf::io::CodedOutputStream;
using OrderedOperations::documentedBytes;
using OrderedOperations::documentedOp;
using OrderedOperations::randomNumber;
using OrderedOperations::randomOp;
using Platform::Bytes;
using Platform::MessageError;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::OpIndex;
using TarnRegFile::Sable::OrderedRegisterOp;
using TarnRegFile::Sable::UniqueId;
using testing::ElementsAre;
using TestSupport::Failure;
using TestSupport::WireBytes;

constexpr const char* unexpected = "Unexpected error when reading Protobuf bytes";
const Failure indexOutOfRange =
   Failure::range("TarnRegFile::Sable::OpIndex::value < TarnRegFile::Sable::OpIndex::min or > "
                  "TarnRegFile::Sable::OpIndex::max not allowed");

constexpr std::uint64_t keyField = 15702;
constexpr std::uint64_t opSizeField = 11891;
constexpr std::uint64_t regKeyField = 30958;
constexpr std::uint64_t regValueField = 15906;

Bytes messageOf(const OrderedRegisterOp& op) {
   Bytes bytes;
   op.writeMessage(bytes);
   return bytes;
}

/// The record in a message that has no length in front of it.
OrderedRegisterOp opOf(const WireBytes& message) {
   return OrderedRegisterOp::constructFromPbMessage(message.prefixed());
}

OrderedRegisterOp opOf(const Bytes& message) {
   return opOf(WireBytes().raw(message));
}

std::vector<std::uint32_t> addressesOf(const OrderedRegisterOp& op) {
   std::vector<std::uint32_t> addresses;
   for (const CoreRegisterKey key : op.regKeys()) {
      addresses.push_back(key.address());
   }
   return addresses;
}

std::vector<std::uint32_t> valuesOf(const OrderedRegisterOp& op) {
   return {op.regValues().begin(), op.regValues().end()};
}

/// What protobuf's own classes make of a record, field by field in the order of the wire format.
std::string asProtobufWritesIt(const OrderedRegisterOp& op) {
   OrderedWire::OrderedRegisterOp key;
   key.mutable_key()->set_value(op.key().value());
   OrderedWire::OrderedRegisterOp size;
   size.set_op_size(op.opSize());
   OrderedWire::OrderedRegisterOp keys;
   for (std::uint32_t i = 0; i < op.regKeyCount(); ++i) {
      auto& element = *keys.add_reg_key();
      element.set_index(i);
      element.mutable_key()->set_address(op.regKey(OpIndex(i)).address());
   }
   OrderedWire::OrderedRegisterOp values;
   for (std::uint32_t i = 0; i < op.regValueCount(); ++i) {
      auto& element = *values.add_reg_value();
      element.set_index(i);
      element.set_value(op.regValue(OpIndex(i)));
   }
   return key.SerializeAsString() + size.SerializeAsString() + keys.SerializeAsString() +
          values.SerializeAsString();
}

/// The record that a message of protobuf's own class describes; none if it describes none.
std::optional<OrderedRegisterOp> opOf(const OrderedWire::OrderedRegisterOp& message) {
   if (message.op_size() > 0xFF) {
      return std::nullopt;
   }
   OrderedRegisterOp op{UniqueId(message.key().value())};
   op.opSizeIs(static_cast<std::uint8_t>(message.op_size()));
   for (const auto& element : message.reg_key()) {
      if (element.index() > 127) {
         return std::nullopt;
      }
      op.regKeyIs(OpIndex(element.index()), CoreRegisterKey(element.key().address()));
   }
   for (const auto& element : message.reg_value()) {
      if (element.index() > 127) {
         return std::nullopt;
      }
      op.regValueIs(OpIndex(element.index()), element.value());
   }
   return op;
}

/// Checks that `message`, behind its length, cannot be read from bytes nor from a stream, and
/// leaves the record alone.
void expectUnexpected(const Bytes& prefixed) {
   const OrderedRegisterOp before = documentedOp();
   OrderedRegisterOp op = before;
   try {
      op.readMessage(prefixed);
      ADD_FAILURE() << "was read";
   } catch (const MessageError& error) {
      EXPECT_STREQ(error.what(), unexpected);
   }
   EXPECT_EQ(op, before);
   ArrayInputStream pieces(prefixed.data(), static_cast<int>(prefixed.size()), 1);
   CodedInputStream stream(&pieces);
   EXPECT_THROW(op.readMessage(stream), MessageError);
   EXPECT_EQ(op, before);
   EXPECT_THROW(OrderedRegisterOp::constructFromPbMessage(prefixed), MessageError);
}

void expectUnexpected(const WireBytes& message) {
   expectUnexpected(message.prefixed());
}

WireBytes keyElement(std::uint64_t index, std::uint32_t address) {
   return WireBytes().section(
      regKeyField, WireBytes().varint(1, index).section(2, WireBytes().varint(599, address)));
}

WireBytes valueElement(std::uint64_t index, std::uint64_t value) {
   return WireBytes().section(regValueField, WireBytes().varint(1, index).varint(2, value));
}

TEST(OrderedRegisterOpMessage, IsAsDocumented) {
   Bytes written;
   documentedOp().writePbMessage(written);
   EXPECT_EQ(written, documentedBytes("message"));
   EXPECT_EQ(OrderedRegisterOp::constructFromPbMessage(documentedBytes("message")), documentedOp());
}

TEST(OrderedRegisterOpMessage, EmptyRecordIsItsFirstTwoFieldsOnly) {
   const Bytes expected =
      WireBytes().section(keyField, WireBytes().fixed64(1, 0)).varint(opSizeField, 0).bytes();
   EXPECT_EQ(messageOf(OrderedRegisterOp()), expected);
   EXPECT_FALSE(opOf(expected));
}

TEST(OrderedRegisterOpMessage, IsWrittenByteForByteAsProtobufWritesItsFields) {
   std::mt19937 random(3);
   for (int round = 0; round < 300; ++round) {
      const OrderedRegisterOp op = randomOp(random);
      const Bytes written = messageOf(op);
      ASSERT_EQ(std::string(written.begin(), written.end()), asProtobufWritesIt(op));
      EXPECT_EQ(op.messageLen(), written.size());
      Bytes prefixed;
      op.writePbMessage(prefixed);
      EXPECT_EQ(prefixed, WireBytes().raw(written).prefixed());
   }
}

TEST(OrderedRegisterOpMessage, EveryElementHasBothFieldsAlsoWhenTheyAreZero) {
   OrderedRegisterOp op;
   op.regKeyIs(OpIndex(1), CoreRegisterKey(0));
   op.regValueIs(OpIndex(0), 0);
   EXPECT_EQ(messageOf(op), WireBytes()
                               .section(keyField, WireBytes().fixed64(1, 0))
                               .varint(opSizeField, 0)
                               .raw(keyElement(0, 0))
                               .raw(keyElement(1, 0))
                               .raw(valueElement(0, 0))
                               .bytes());
}

TEST(OrderedRegisterOpMessage, IsReadByProtobuf) {
   std::mt19937 random(4);
   for (int round = 0; round < 200; ++round) {
      const OrderedRegisterOp op = randomOp(random);
      const Bytes written = messageOf(op);
      OrderedWire::OrderedRegisterOp read;
      ASSERT_TRUE(read.ParseFromArray(written.data(), static_cast<int>(written.size())));
      EXPECT_EQ(opOf(read), op);
   }
}

TEST(OrderedRegisterOpMessage, ReadsWhatProtobufWritesInItsOwnOrder) {
   std::mt19937 random(5);
   for (int round = 0; round < 200; ++round) {
      const OrderedRegisterOp op = randomOp(random);
      OrderedWire::OrderedRegisterOp theirs;
      ASSERT_TRUE(theirs.ParseFromString(asProtobufWritesIt(op)));
      const std::string text = theirs.SerializeAsString(); // by field number
      EXPECT_EQ(opOf(WireBytes().raw(text)), op);
   }
}

TEST(OrderedRegisterOpMessage, GoesThroughStreamsInPiecesOfAnySize) {
   std::mt19937 random(6);
   for (int piece = 1; piece < 40; ++piece) {
      const OrderedRegisterOp first = randomOp(random);
      const OrderedRegisterOp second = randomOp(random);
      std::string text;
      {
         google::protobuf::io::StringOutputStream out(&text);
         CodedOutputStream stream(&out);
         first.writePbMessage(stream);
         second.writePbMessage(stream);
      }
      ArrayInputStream in(text.data(), static_cast<int>(text.size()), piece);
      CodedInputStream stream(&in);
      EXPECT_EQ(OrderedRegisterOp::constructFromPbMessage(stream), first);
      OrderedRegisterOp read;
      read.readMessage(stream);
      EXPECT_EQ(read, second);
   }
}

TEST(OrderedRegisterOpMessage, BytesBehindItAreNotLookedAt) {
   Bytes bytes;
   documentedOp().writePbMessage(bytes);
   const std::size_t length = bytes.size();
   bytes.push_back(0xFF);
   OrderedRegisterOp op;
   EXPECT_EQ(op.readMessage(bytes), length);
   EXPECT_EQ(op, documentedOp());
}

/// One of everything that may be in a message beside what is known, in fields that `number` picks.
WireBytes unknownField(std::mt19937& random) {
   const std::uint64_t number = 100 + random() % 400; // none of the known ones
   switch (random() % 6) {
   case 0:
      return WireBytes().varint(number, std::uint64_t{random()} << 32 | random());
   case 1:
      return WireBytes().fixed64(number, random());
   case 2:
      return WireBytes().section(number, WireBytes().raw(Bytes(random() % 300, 0xFF)));
   case 3:
      return WireBytes().group(number, WireBytes());
   case 4:
      return WireBytes().group(
         number, WireBytes().raw(unknownField(random)).raw(keyElement(3, 4)).varint(keyField, 1));
   default:
      return WireBytes().fixed32(number, random());
   }
}

/// A field of the record, with unknown ones in front of all that is in it and behind.
WireBytes knownField(std::mt19937& random) {
   const auto clutter = [&] {
      WireBytes bytes;
      while (random() % 4 == 0) {
         bytes.raw(unknownField(random));
      }
      return bytes;
   };
   const auto shuffled = [&](std::vector<WireBytes> fields) {
      std::shuffle(fields.begin(), fields.end(), random);
      WireBytes bytes = clutter();
      for (const WireBytes& field : fields) {
         if (random() % 8 != 0) { // each may be missing
            bytes.raw(field).raw(clutter());
         }
      }
      return bytes;
   };
   const std::uint32_t number = randomNumber(random);
   const std::uint64_t index = random() % 128;
   switch (random() % 4) {
   case 0:
      return WireBytes().section(keyField, shuffled({WireBytes().fixed64(1, random())}));
   case 1:
      return WireBytes().varint(opSizeField, random() % 256);
   case 2:
      return WireBytes().section(
         regKeyField,
         shuffled({WireBytes().varint(1, index),
                   WireBytes().section(2, shuffled({WireBytes().varint(599, number)}))}));
   default:
      return WireBytes().section(
         regValueField, shuffled({WireBytes().varint(1, index), WireBytes().varint(2, number)}));
   }
}

TEST(OrderedRegisterOpMessage, FieldsInAnyOrderAmongUnknownOnesMeanWhatTheyMeanToProtobuf) {
   std::mt19937 random(7);
   for (int round = 0; round < 500; ++round) {
      WireBytes message;
      for (auto fields = random() % 60; fields > 0; --fields) {
         message.raw(random() % 3 == 0 ? unknownField(random) : knownField(random));
      }
      OrderedWire::OrderedRegisterOp theirs;
      ASSERT_TRUE(
         theirs.ParseFromArray(message.bytes().data(), static_cast<int>(message.bytes().size())));
      const auto expected = opOf(theirs);
      ASSERT_TRUE(expected.has_value());
      EXPECT_EQ(opOf(message), *expected);
   }
}

TEST(OrderedRegisterOpMessage, CutOrDamagedAnywhereItIsReadAsProtobufReadsIt) {
   std::mt19937 random(8);
   for (int round = 0; round < 30; ++round) {
      WireBytes message;
      for (int field = 0; field < 6; ++field) {
         message.raw(random() % 3 == 0 ? unknownField(random) : knownField(random));
      }
      const Bytes& whole = message.bytes();
      for (std::size_t length = 0; length <= whole.size(); ++length) {
         const Bytes cut(whole.begin(), whole.begin() + length);
         OrderedWire::OrderedRegisterOp theirs;
         if (theirs.ParseFromArray(cut.data(), static_cast<int>(length))) {
            EXPECT_EQ(std::optional(opOf(cut)), opOf(theirs));
         } else {
            expectUnexpected(WireBytes().raw(cut));
         }
      }
   }
}

TEST(OrderedRegisterOpMessage, ThatEndsBeforeItsLengthDoesIsRefusedAtEveryByte) {
   Bytes whole;
   documentedOp().writePbMessage(whole);
   for (std::size_t length = 0; length < whole.size(); ++length) {
      expectUnexpected(Bytes(whole.begin(), whole.begin() + length));
   }
}

TEST(OrderedRegisterOpMessage, IndexesFiveAndTwoGiveSixElements) {
   const OrderedRegisterOp op = opOf(WireBytes()
                                        .raw(keyElement(5, 50))
                                        .raw(keyElement(2, 20))
                                        .raw(valueElement(5, 500))
                                        .raw(valueElement(2, 200)));
   EXPECT_THAT(addressesOf(op), ElementsAre(0, 0, 20, 0, 0, 50));
   EXPECT_THAT(valuesOf(op), ElementsAre(0, 0, 200, 0, 0, 500));
}

TEST(OrderedRegisterOpMessage, ElementAtTheCountAppendsAndBelowItReplaces) {
   const OrderedRegisterOp op = opOf(WireBytes()
                                        .raw(valueElement(0, 1))
                                        .raw(valueElement(1, 2))
                                        .raw(valueElement(0, 3))
                                        .raw(keyElement(0, 4))
                                        .raw(keyElement(0, 5)));
   EXPECT_THAT(valuesOf(op), ElementsAre(3, 2));
   EXPECT_THAT(addressesOf(op), ElementsAre(5));
}

TEST(OrderedRegisterOpMessage, ElementWithoutIndexIsTheFirstAndWithoutContentZero) {
   OrderedRegisterOp op =
      opOf(WireBytes()
              .section(regKeyField, WireBytes().section(2, WireBytes().varint(599, 7)))
              .section(regValueField, WireBytes().varint(2, 8)));
   EXPECT_THAT(addressesOf(op), ElementsAre(7));
   EXPECT_THAT(valuesOf(op), ElementsAre(8));
   op.readMessage(WireBytes()
                     .section(regKeyField, WireBytes())
                     .section(regValueField, WireBytes())
                     .section(regKeyField, WireBytes().varint(1, 1).section(2, WireBytes()))
                     .prefixed());
   EXPECT_THAT(addressesOf(op), ElementsAre(0, 0));
   EXPECT_THAT(valuesOf(op), ElementsAre(0));
}

TEST(OrderedRegisterOpMessage, OfAFieldThatComesTwiceTheLastCounts) {
   const OrderedRegisterOp op = opOf(
      WireBytes()
         .section(keyField, WireBytes().fixed64(1, 1))
         .varint(opSizeField, 3)
         .section(keyField, WireBytes().fixed64(1, 2))
         .varint(opSizeField, 4)
         .section(regValueField, WireBytes().varint(1, 1).varint(2, 5).varint(1, 0).varint(2, 6)));
   EXPECT_EQ(op.key(), UniqueId(2));
   EXPECT_EQ(op.opSize(), 4);
   EXPECT_THAT(valuesOf(op), ElementsAre(6));
}

TEST(OrderedRegisterOpMessage, ReadIntoARecordKeepsWhatItDoesNotMention) {
   OrderedRegisterOp op = documentedOp();
   op.readMessage(WireBytes().raw(valueElement(2, 9)).prefixed());
   EXPECT_EQ(op.key(), documentedOp().key());
   EXPECT_EQ(op.opSize(), 2);
   EXPECT_THAT(addressesOf(op), ElementsAre(0x10, 0x1234));
   EXPECT_THAT(valuesOf(op), ElementsAre(1, 0xdeadbeef, 9));
   EXPECT_EQ(op.readMessage(Bytes{0}), 1u);
   EXPECT_THAT(valuesOf(op), ElementsAre(1, 0xdeadbeef, 9));
}

TEST(OrderedRegisterOpMessage, ConstructedOneBeginsEmpty) {
   EXPECT_FALSE(OrderedRegisterOp::constructFromPbMessage(Bytes{0}));
   EXPECT_EQ(opOf(WireBytes().varint(opSizeField, 9)).key(), UniqueId());
}

TEST(OrderedRegisterOpMessage, SizeIsCarriedWhateverTheCountsAre) {
   OrderedRegisterOp op(UniqueId(1));
   op.opSizeIs(255);
   op.regKeyIs(OpIndex(2), CoreRegisterKey(1));
   EXPECT_EQ(opOf(messageOf(op)).opSize(), 255);
   EXPECT_EQ(opOf(messageOf(op)), op);
}

TEST(OrderedRegisterOpMessage, SizeBeyondEightBitsIsARangeErrorNotAnotherSize) {
   for (const std::uint64_t size : {std::uint64_t{256}, std::uint64_t{1} << 32, UINT64_MAX}) {
      OrderedRegisterOp op = documentedOp();
      const Bytes message =
         WireBytes().raw(valueElement(0, 9)).varint(opSizeField, size).prefixed();
      EXPECT_EQ(Failure([&] { op.readMessage(message); }),
                Failure::range("TarnRegFile::Sable::OrderedRegisterOp::opSize > 255 not allowed"));
      EXPECT_EQ(op, documentedOp());
   }
}

TEST(OrderedRegisterOpMessage, IndexBeyondTheRangeIsARangeErrorAndLeavesTheRecordAsItWas) {
   for (const std::uint64_t index :
        {std::uint64_t{128}, std::uint64_t{255}, std::uint64_t{256}, std::uint64_t{1} << 32,
         (std::uint64_t{1} << 32) + 5, UINT64_MAX}) {
      for (const WireBytes& element : {keyElement(index, 1), valueElement(index, 1)}) {
         OrderedRegisterOp op = documentedOp();
         const Bytes message =
            WireBytes().varint(opSizeField, 9).raw(valueElement(0, 9)).raw(element).prefixed();
         EXPECT_EQ(Failure([&] { op.readMessage(message); }), indexOutOfRange) << index;
         EXPECT_EQ(op, documentedOp());
      }
   }
   EXPECT_EQ(opOf(keyElement(127, 1)).regKeyCount(), 128u);
   EXPECT_EQ(opOf(valueElement(127, 1)).regValueCount(), 128u);
}

TEST(OrderedRegisterOpMessage, ValueKeepsTheLowerHalfOfALongerNumberAsInProtobuf) {
   const WireBytes message = valueElement(0, 0xABCD12345678);
   OrderedWire::OrderedRegisterOp theirs;
   ASSERT_TRUE(
      theirs.ParseFromArray(message.bytes().data(), static_cast<int>(message.bytes().size())));
   EXPECT_EQ(theirs.reg_value(0).value(), 0x12345678u);
   EXPECT_THAT(valuesOf(opOf(message)), ElementsAre(0x12345678));
}

/// A field of every wire type but `right`: each whole and well formed, and each with what could
/// pass for the content of any.
std::vector<WireBytes> otherTypes(std::uint64_t field, unsigned right) {
   std::vector<std::pair<unsigned, WireBytes>> all{
      {0, WireBytes().varint(field, 1)},
      {1, WireBytes().fixed64(field, 1)},
      {2, WireBytes().section(field, WireBytes())},
      {3, WireBytes().group(field, WireBytes())},
      {4, WireBytes().tag(field, 4)},
      {5, WireBytes().fixed32(field, 1)},
      {6, WireBytes().tag(field, 6)},
      {7, WireBytes().tag(field, 7)},
   };
   std::vector<WireBytes> others;
   for (const auto& [type, bytes] : all) {
      if (type != right) {
         others.push_back(bytes);
         others.push_back(WireBytes().tag(field, type).rawVarint(0));
      }
   }
   return others;
}

TEST(OrderedRegisterOpMessage, KnownFieldOfAnotherWireTypeIsRefused) {
   const std::vector<std::pair<std::uint64_t, unsigned>> fields{
      {keyField, 2}, {opSizeField, 0}, {regKeyField, 2}, {regValueField, 2}};
   for (const auto& [field, type] : fields) {
      for (const WireBytes& wrong : otherTypes(field, type)) {
         expectUnexpected(wrong);
         // Nor does it matter that it stands among others that are good.
         expectUnexpected(WireBytes()
                             .varint(opSizeField, 9)
                             .raw(valueElement(0, 9))
                             .raw(wrong)
                             .raw(valueElement(1, 9)));
      }
   }
}

TEST(OrderedRegisterOpMessage, KnownInnerFieldOfAnotherWireTypeIsRefused) {
   for (const WireBytes& wrong : otherTypes(1, 0)) {
      expectUnexpected(WireBytes().section(regKeyField, wrong));
      expectUnexpected(WireBytes().section(regValueField, wrong));
   }
   for (const WireBytes& wrong : otherTypes(2, 2)) {
      expectUnexpected(WireBytes().section(regKeyField, wrong));
   }
   for (const WireBytes& wrong : otherTypes(2, 0)) {
      expectUnexpected(WireBytes().section(regValueField, wrong));
   }
   for (const WireBytes& wrong : otherTypes(599, 0)) {
      expectUnexpected(WireBytes().section(regKeyField, WireBytes().section(2, wrong)));
   }
   for (const WireBytes& wrong : otherTypes(1, 1)) {
      expectUnexpected(WireBytes().section(keyField, wrong));
   }
}

TEST(OrderedRegisterOpMessage, LengthThatRunsPastWhatIsAroundItIsRefused) {
   const Bytes tail(40, 0);
   for (const std::uint64_t beyond :
        {std::uint64_t{1}, std::uint64_t{100}, std::uint64_t{INT32_MAX} - 1,
         std::uint64_t{INT32_MAX}, std::uint64_t{UINT32_MAX}, std::uint64_t{1} << 32, UINT64_MAX}) {
      // The message itself, with bytes behind it for the small lengths to run into.
      expectUnexpected(WireBytes().rawVarint(4 + beyond).varint(opSizeField, 1).bytes());
      for (const std::uint64_t field : {keyField, regKeyField, regValueField, std::uint64_t{99}}) {
         const WireBytes message = WireBytes().tag(field, 2).rawVarint(beyond);
         expectUnexpected(
            WireBytes().rawVarint(message.bytes().size()).raw(message).raw(tail).bytes());
      }
      // The key in an element, and a string in it that nobody knows; the message goes on behind.
      for (const std::uint64_t field : {2, 99}) {
         expectUnexpected(
            WireBytes()
               .section(regKeyField, WireBytes().varint(1, 0).tag(field, 2).rawVarint(beyond))
               .raw(valueElement(0, 1))
               .section(99, WireBytes().raw(tail)));
      }
   }
}

TEST(OrderedRegisterOpMessage, InnerMessageMayNotBorrowFromTheOuterOne) {
   // The element has 4 bytes; the key in it says 3 of its own where 2 are left.
   const WireBytes element =
      WireBytes().tag(regKeyField, 2).rawVarint(4).varint(1, 0).tag(2, 2).rawVarint(3);
   expectUnexpected(WireBytes().raw(element).varint(599, 1).raw(valueElement(0, 1)));
   // An element that says less than it has leaves bytes that are no field of the message.
   expectUnexpected(
      WireBytes().tag(regValueField, 2).rawVarint(3).varint(1, 0).varint(2, 1).rawVarint(0));
   // A varint over the end of its element.
   expectUnexpected(
      WireBytes().tag(regValueField, 2).rawVarint(2).tag(1, 0).raw(Bytes{0x81}).raw(Bytes{1}));
}

TEST(OrderedRegisterOpMessage, EmptyBytesHaveNoMessage) {
   expectUnexpected(Bytes{});
   EXPECT_EQ(Failure([] { OrderedRegisterOp::constructFromPbMessage(Bytes{}); }).text, unexpected);
}

/// Reads a field's content whose tag is `tag` into `op`.
void readField(OrderedRegisterOp& op, std::uint32_t tag, const WireBytes& content) {
   CodedInputStream stream(content.bytes().data(), static_cast<int>(content.bytes().size()));
   op.readMessageField(tag, stream);
   EXPECT_EQ(stream.CurrentPosition(), static_cast<int>(content.bytes().size()));
}

TEST(OrderedRegisterOpMessage, FieldsAreReadOneByOneForWhoeverHasTheTag) {
   OrderedRegisterOp op;
   readField(op, opSizeField << 3, WireBytes().rawVarint(7));
   EXPECT_EQ(op.opSize(), 7);
   readField(op, keyField << 3 | 2, WireBytes().raw(WireBytes().fixed64(1, 3).prefixed()));
   EXPECT_EQ(op.key(), UniqueId(3));
   readField(op, regValueField << 3 | 2, WireBytes().raw(Bytes{4, 8, 1, 16, 5}));
   EXPECT_THAT(valuesOf(op), ElementsAre(0, 5));
   readField(op, 99 << 3 | 2, WireBytes().raw(Bytes{2, 0xFF, 0xFF}));
   readField(op, 99 << 3 | 3, WireBytes().varint(1, 1).tag(99, 4));
   EXPECT_EQ(op.regKeyCount(), 0u);
}

TEST(OrderedRegisterOpMessage, FieldThatCannotBeReadLeavesTheRecordAsItWas) {
   OrderedRegisterOp op = documentedOp();
   EXPECT_THROW(readField(op, opSizeField << 3, WireBytes().rawVarint(256)), Platform::RangeError);
   EXPECT_THROW(readField(op, opSizeField << 3 | 5, WireBytes().rawVarint(1)), MessageError);
   EXPECT_THROW(readField(op, regValueField << 3 | 2, WireBytes().raw(Bytes{4, 8, 0, 16})),
                MessageError);
   EXPECT_THROW(readField(op, regKeyField << 3 | 2, WireBytes().raw(Bytes{3, 8, 0x80, 1})),
                Platform::RangeError);
   EXPECT_THROW(readField(op, keyField << 3 | 2, WireBytes().raw(Bytes{9, 9, 1, 2})), MessageError);
   EXPECT_EQ(op, documentedOp());
}

} // namespace
