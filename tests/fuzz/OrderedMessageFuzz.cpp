// Reads any bytes as the protobuf form of an OrderedRegisterOp, whole and in small pieces. What is
// read must be what protobuf's own code reads, and come back the same when it is written, by either
// of the two, and read again; what is not must leave the record as it was.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/stubs/logging.h>

#include "platform/entity/Errors.h"
#include "TarnRegFile/OrderedRegisterOp.h"
#include "tests/fuzz/Check.h"
#include "tests/support/ordered_register_op.pb.h"

namespace {

using google::protobuf::io::ArrayInputStream;
using google::protobuf::io::CodedInputStream;
using Platform::Bytes;
using Platform::MessageError;
using Platform::RangeError;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::OpIndex;
using TarnRegFile::Sable::OrderedRegisterOp;
using TarnRegFile::Sable::UniqueId;

/// Whether a message was read. Which of the errors it was is not compared: of a stream, one finds
/// only when reading on that it ends before the message does.
template <typename Source>
bool isRead(OrderedRegisterOp& op, Source& source) {
   try {
      op.readMessage(source);
      return true;
   } catch (const RangeError&) {
      return false;
   } catch (const MessageError&) {
      return false;
   }
}

OrderedRegisterOp recordBefore() {
   OrderedRegisterOp op(UniqueId(7));
   op.opSizeIs(1);
   op.regKeyIs(OpIndex(1), CoreRegisterKey(9));
   op.regValueIs(OpIndex(0), 8);
   return op;
}

/// What protobuf makes of a message, added to a record; the ranges were checked by our own reading.
OrderedRegisterOp applied(const OrderedRegisterOp& before,
                          const OrderedWire::OrderedRegisterOp& message) {
   // Fields that are not there stay as they were.
   OrderedRegisterOp op(message.key().has_value() ? UniqueId(message.key().value()) : before.key());
   op.opSizeIs(message.has_op_size() ? static_cast<std::uint8_t>(message.op_size())
                                     : before.opSize());
   for (std::uint32_t i = 0; i < before.regKeyCount(); ++i) {
      op.regKeyIs(OpIndex(i), before.regKey(OpIndex(i)));
   }
   for (std::uint32_t i = 0; i < before.regValueCount(); ++i) {
      op.regValueIs(OpIndex(i), before.regValue(OpIndex(i)));
   }
   for (const auto& element : message.reg_key()) {
      op.regKeyIs(OpIndex(element.index()), CoreRegisterKey(element.key().address()));
   }
   for (const auto& element : message.reg_value()) {
      op.regValueIs(OpIndex(element.index()), element.value());
   }
   return op;
}

/// Writes and reads again, by us and by protobuf.
void roundTrip(const OrderedRegisterOp& op) {
   Bytes bare;
   op.writeMessage(bare);
   FUZZ_CHECK(bare.size() == op.messageLen());
   OrderedWire::OrderedRegisterOp theirs;
   FUZZ_CHECK(theirs.ParseFromArray(bare.data(), static_cast<int>(bare.size())));
   FUZZ_CHECK(applied(OrderedRegisterOp(), theirs) == op);

   Bytes prefixed;
   op.writePbMessage(prefixed);
   FUZZ_CHECK(OrderedRegisterOp::constructFromPbMessage(prefixed) == op);
   Bytes again;
   OrderedRegisterOp::constructFromPbMessage(prefixed).writePbMessage(again);
   FUZZ_CHECK(again == prefixed);
}

/// `prefixed` is a length and a message; `length` is the message's if it is known to be in there.
void message(std::span<const std::uint8_t> prefixed, std::optional<std::size_t> length,
             int pieceSize) {
   const OrderedRegisterOp before = recordBefore();
   OrderedRegisterOp op = before;
   const bool isGood = isRead(op, prefixed);
   FUZZ_CHECK(isGood || op == before);

   OrderedRegisterOp fromPieces = before;
   ArrayInputStream pieces(prefixed.data(), static_cast<int>(prefixed.size()), pieceSize);
   CodedInputStream stream(&pieces);
   FUZZ_CHECK(isRead(fromPieces, stream) == isGood);
   FUZZ_CHECK(fromPieces == op);

   if (!isGood) {
      return;
   }
   roundTrip(op);
   if (length) {
      OrderedWire::OrderedRegisterOp theirs;
      const std::span<const std::uint8_t> content = prefixed.last(*length);
      // Protobuf refuses tags with more bytes than they need.
      if (theirs.ParseFromArray(content.data(), static_cast<int>(content.size()))) {
         FUZZ_CHECK(op == applied(before, theirs));
      }
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   // Protobuf writes a line about every message that it cannot read.
   [[maybe_unused]] static const auto* const silent =
      google::protobuf::SetLogHandler(nullptr) ? "" : nullptr;
   if (size == 0) {
      return 0;
   }
   const int pieceSize = 1 + data[0] % 40;
   const std::span<const std::uint8_t> bytes(data + 1, size - 1);

   // As it comes: the length, too, is the fuzzer's.
   message(bytes, std::nullopt, pieceSize);

   // Behind its right length, which a fuzzer hardly ever gets right, and more behind that.
   std::string prefixed;
   for (std::size_t length = bytes.size(); length != 0 || prefixed.empty(); length >>= 7) {
      prefixed.push_back(static_cast<char>((length & 0x7F) | (length >= 0x80 ? 0x80 : 0)));
   }
   prefixed.append(bytes.begin(), bytes.end());
   message({reinterpret_cast<const std::uint8_t*>(prefixed.data()), prefixed.size()}, bytes.size(),
           pieceSize);
   return 0;
}
