// What is printed of the records of shared tables.

#include "tools/tarnreg/TableText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <vector>

#include "platform/entity/UniqueId.h"
#include "platform/tables/Table.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/OrderedRegisterOp.h"

namespace TarnReg {
namespace {

using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::OpIndex;
using TarnRegFile::Sable::OrderedRegisterOp;
using Bytes = std::vector<std::uint8_t>;

template <typename R>
TableText textOf() {
   return TableText(Platform::Tables::Table<R>::tableShape());
}

template <typename R>
Bytes bytesOf(const R& record) {
   Bytes bytes(record.serializeLen());
   record.serialize(bytes.data());
   return bytes;
}

template <typename R>
Bytes keyBytesOf(const R& record) {
   Bytes bytes(decltype(record.key())::serializedLen);
   record.key().serialize(bytes.data());
   return bytes;
}

TEST(TableText, ARegisterIsItsAddressAndItsValue) {
   const CoreRegister record(CoreRegisterKey(0x14), 0x2a);
   const TableText text = textOf<CoreRegister>();
   EXPECT_EQ(text.key(keyBytesOf(record)), "0x14");
   EXPECT_EQ(text.record(bytesOf(record)), "0x2a");
}

TEST(TableText, AnOperationIsItsWritesInOrder) {
   OrderedRegisterOp record(Platform::UniqueId(0x1234));
   record.opSizeIs(3);
   record.regKeyIs(OpIndex(0), CoreRegisterKey(8));
   record.regValueIs(OpIndex(0), 0x11);
   record.regKeyIs(OpIndex(1), CoreRegisterKey(4));
   const TableText text = textOf<OrderedRegisterOp>();
   EXPECT_EQ(text.key(keyBytesOf(record)), "0x0000000000001234");
   EXPECT_EQ(text.record(bytesOf(record)), "size 3  0x8=0x11  0x4=?");
}

TEST(TableText, JsonHasTheSameAsNumbers) {
   OrderedRegisterOp record(Platform::UniqueId(0x1234));
   record.opSizeIs(1);
   record.regKeyIs(OpIndex(0), CoreRegisterKey(8));
   record.regValueIs(OpIndex(0), 0x11);
   EXPECT_EQ(textOf<OrderedRegisterOp>().recordJson(bytesOf(record)).dump(),
             R"({"size":1,"registers":[8],"values":[17]})");
   const CoreRegister reg(CoreRegisterKey(0x14), 0x2a);
   EXPECT_EQ(textOf<CoreRegister>().keyJson(keyBytesOf(reg)).dump(), R"({"address":20})");
   EXPECT_EQ(textOf<CoreRegister>().recordJson(bytesOf(reg)).dump(), R"({"value":42})");
}

TEST(TableText, WhatIsNoRecordIsItsBytes) {
   const Bytes bytes = {0xff, 0x00, 0x1d};
   EXPECT_EQ(textOf<OrderedRegisterOp>().record(bytes), "ff001d");
   EXPECT_EQ(textOf<CoreRegister>().record(bytes), "ff001d");
   EXPECT_EQ(textOf<OrderedRegisterOp>().key(bytes), "ff001d");
}

TEST(TableText, ATableOfSomethingElseIsShownAsBytes) {
   Platform::Tables::TableShape shape;
   shape.keyType = "Key";
   shape.recordType = "Record";
   shape.keySize = 2;
   shape.recordSize = 2;
   const Bytes bytes = {0x0a, 0xb0};
   EXPECT_EQ(TableText(shape).key(bytes), "0ab0");
   EXPECT_EQ(TableText(shape).record(bytes), "0ab0");
}

} // namespace
} // namespace TarnReg
