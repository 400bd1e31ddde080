// Reads any bytes as the stored form of an OrderedRegisterOp, and of the smaller records of the
// tables. What is read must be written back as the bytes it was read from; what is not must be a
// RangeError that leaves the record as it was. Nothing outside of the bytes may be read.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "platform/entity/Errors.h"
#include "platform/entity/LittleEndian.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/OrderedRegisterOp.h"
#include "tests/fuzz/Check.h"

namespace {

using Platform::RangeError;
using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::OpIndex;
using TarnRegFile::Sable::OrderedRegisterOp;
using TarnRegFile::Sable::UniqueId;
namespace LittleEndian = Platform::LittleEndian;

OrderedRegisterOp recordBefore() {
   OrderedRegisterOp op(UniqueId(7));
   op.opSizeIs(1);
   op.regKeyIs(OpIndex(3), CoreRegisterKey(9));
   op.regValueIs(OpIndex(2), 8);
   return op;
}

bool isRead(OrderedRegisterOp& op, std::span<const std::uint8_t> bytes) {
   try {
      op.deserialize(bytes.data(), bytes.size());
      return true;
   } catch (const RangeError&) {
      return false;
   }
}

void ordered(std::span<const std::uint8_t> bytes) {
   const OrderedRegisterOp before = recordBefore();
   OrderedRegisterOp op = before;
   const std::size_t length = OrderedRegisterOp::storedLen(bytes);
   FUZZ_CHECK(length <= bytes.size());
   FUZZ_CHECK(isRead(op, bytes) == (length != 0));
   if (length == 0) {
      FUZZ_CHECK(op == before);
      return;
   }
   FUZZ_CHECK(op.serializeLen() == length);
   FUZZ_CHECK(length == 20 + 4 * (std::size_t{op.regKeyCount()} + op.regValueCount()));
   std::vector<std::uint8_t> written(length, 0xEE);
   op.serialize(written.data());
   FUZZ_CHECK(std::ranges::equal(written, bytes.first(length)));
   OrderedRegisterOp again;
   again.deserialize(written.data(), written.size());
   FUZZ_CHECK(again == op);
   FUZZ_CHECK(op.key() == UniqueId::deserialized(bytes.data()));
   FUZZ_CHECK(op.opSize() == bytes[8]);

   // The protobuf form carries the same record.
   Platform::Bytes message;
   op.writePbMessage(message);
   FUZZ_CHECK(OrderedRegisterOp::constructFromPbMessage(message) == op);
}

/// A slot of a table, whose rest is zero.
void slot(std::span<const std::uint8_t> bytes) {
   std::array<std::uint8_t, OrderedRegisterOp::maxSerializedLen> whole{};
   std::copy_n(bytes.begin(), std::min(bytes.size(), whole.size()), whole.begin());
   const std::size_t told = OrderedRegisterOp::deserializeLen(whole.data(), bytes.size());
   const std::size_t needed = OrderedRegisterOp::storedLen(whole);
   FUZZ_CHECK(told == (needed != 0 ? whole.size() : 0));
   OrderedRegisterOp op;
   FUZZ_CHECK(isRead(op, whole) == (told != 0));
}

void small(std::span<const std::uint8_t> bytes) {
   CoreRegister record(CoreRegisterKey(1), 2);
   const std::size_t length = CoreRegister::deserializeLen(bytes.data(), bytes.size());
   try {
      record.deserialize(bytes.data(), bytes.size());
      FUZZ_CHECK(length == record.serializeLen());
      std::array<std::uint8_t, CoreRegister::maxSerializedLen> written{};
      record.serialize(written.data());
      FUZZ_CHECK(std::ranges::equal(written, bytes.first(length)));
   } catch (const RangeError&) {
      FUZZ_CHECK(length == 0 && record == CoreRegister(CoreRegisterKey(1), 2));
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   // libFuzzer's own buffer has exactly the input's size, so that the sanitizer sees each byte that
   // is read beyond it.
   const std::span<const std::uint8_t> bytes(data, size);
   ordered(bytes);
   slot(bytes);
   small(bytes);
   return 0;
}
