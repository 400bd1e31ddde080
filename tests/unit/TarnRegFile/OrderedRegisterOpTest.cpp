#include "TarnRegFile/OrderedRegisterOp.h"

#include <functional>
#include <numeric>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/Value.h"
#include "tests/support/Failure.h"

namespace {

using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::OpIndex;
using TarnRegFile::Sable::OrderedRegisterOp;
using TarnRegFile::Sable::UniqueId;
using testing::ElementsAre;
using TestSupport::Failure;

OrderedRegisterOp opOf(std::uint64_t key, std::uint8_t opSize,
                       const std::vector<std::uint32_t>& keys,
                       const std::vector<std::uint32_t>& values) {
   OrderedRegisterOp op{UniqueId(key)};
   op.opSizeIs(opSize);
   for (std::size_t i = 0; i < keys.size(); ++i) {
      op.regKeyIs(OpIndex(i), CoreRegisterKey(keys[i]));
   }
   for (std::size_t i = 0; i < values.size(); ++i) {
      op.regValueIs(OpIndex(i), values[i]);
   }
   return op;
}

/// The two arrays have the same operations. What is tested is tested of both, with numbers for the
/// elements.
class RegKeys {
public:
   static std::vector<std::uint32_t> all(const OrderedRegisterOp& op) {
      std::vector<std::uint32_t> addresses;
      for (const CoreRegisterKey key : op.regKeys()) {
         addresses.push_back(key.address());
      }
      return addresses;
   }
   static auto span(const OrderedRegisterOp& op) { return op.regKeys(); }
   static std::uint32_t count(const OrderedRegisterOp& op) { return op.regKeyCount(); }
   static std::uint32_t at(const OrderedRegisterOp& op, int index) {
      return op.regKey(OpIndex(index)).address();
   }
   static void is(OrderedRegisterOp& op, int index, std::uint32_t value) {
      op.regKeyIs(OpIndex(index), CoreRegisterKey(value));
   }
   static bool del(OrderedRegisterOp& op, int index) { return op.regKeyDel(OpIndex(index)); }
   static auto delAt(OrderedRegisterOp& op, OrderedRegisterOp::RegKeyIterator position) {
      return op.regKeyDel(position);
   }
   static void delAll(OrderedRegisterOp& op) { op.regKeyDelAll(); }
   static std::uint32_t otherCount(const OrderedRegisterOp& op) { return op.regValueCount(); }
};

class RegValues {
public:
   static std::vector<std::uint32_t> all(const OrderedRegisterOp& op) {
      return {op.regValues().begin(), op.regValues().end()};
   }
   static auto span(const OrderedRegisterOp& op) { return op.regValues(); }
   static std::uint32_t count(const OrderedRegisterOp& op) { return op.regValueCount(); }
   static std::uint32_t at(const OrderedRegisterOp& op, int index) {
      return op.regValue(OpIndex(index));
   }
   static void is(OrderedRegisterOp& op, int index, std::uint32_t value) {
      op.regValueIs(OpIndex(index), value);
   }
   static bool del(OrderedRegisterOp& op, int index) { return op.regValueDel(OpIndex(index)); }
   static auto delAt(OrderedRegisterOp& op, OrderedRegisterOp::RegValueIterator position) {
      return op.regValueDel(position);
   }
   static void delAll(OrderedRegisterOp& op) { op.regValueDelAll(); }
   static std::uint32_t otherCount(const OrderedRegisterOp& op) { return op.regKeyCount(); }
};

template <typename Array>
class OrderedRegisterOpArray : public testing::Test {
protected:
   void isAll(const std::vector<std::uint32_t>& elements) {
      for (std::size_t i = 0; i < elements.size(); ++i) {
         Array::is(op, static_cast<int>(i), elements[i]);
      }
   }

   OrderedRegisterOp op{UniqueId(1)};
};

using Arrays = testing::Types<RegKeys, RegValues>;
TYPED_TEST_SUITE(OrderedRegisterOpArray, Arrays);

TYPED_TEST(OrderedRegisterOpArray, IsEmptyAtFirst) {
   EXPECT_EQ(TypeParam::count(this->op), 0u);
   EXPECT_TRUE(TypeParam::span(this->op).empty());
}

TYPED_TEST(OrderedRegisterOpArray, SettingTheNextIndexAppends) {
   TypeParam::is(this->op, 0, 10);
   EXPECT_EQ(TypeParam::count(this->op), 1u);
   TypeParam::is(this->op, 1, 11);
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(10, 11));
   EXPECT_EQ(TypeParam::otherCount(this->op), 0u) << "the other array stays as it is";
}

TYPED_TEST(OrderedRegisterOpArray, SettingBelowTheCountReplacesThatElementOnly) {
   this->isAll({10, 11, 12});
   TypeParam::is(this->op, 1, 21);
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(10, 21, 12));
}

TYPED_TEST(OrderedRegisterOpArray, SettingBeyondTheCountSkipsOverZerosInANewRecord) {
   TypeParam::is(this->op, 3, 13);
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(0, 0, 0, 13));
   TypeParam::is(this->op, 5, 15);
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(0, 0, 0, 13, 0, 15));
}

TYPED_TEST(OrderedRegisterOpArray, SettingBeyondTheCountShowsAgainWhatWasStoredThere) {
   this->isAll({10, 11, 12});
   TypeParam::delAll(this->op);
   EXPECT_TRUE(TypeParam::all(this->op).empty());
   TypeParam::is(this->op, 3, 13);
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(10, 11, 12, 13));
}

TYPED_TEST(OrderedRegisterOpArray, HoldsAHundredAndTwentyEight) {
   std::vector<std::uint32_t> expected(128);
   std::iota(expected.begin(), expected.end(), 1000);
   this->isAll(expected);
   EXPECT_EQ(TypeParam::count(this->op), 128u);
   EXPECT_EQ(TypeParam::all(this->op), expected);
   OrderedRegisterOp lastOnly;
   TypeParam::is(lastOnly, 127, 5);
   EXPECT_EQ(TypeParam::count(lastOnly), 128u);
   EXPECT_EQ(TypeParam::at(lastOnly, 126), 0u);
   EXPECT_EQ(TypeParam::at(lastOnly, 127), 5u);
}

TYPED_TEST(OrderedRegisterOpArray, IndexBeyondTheRangeIsARangeErrorAndChangesNothing) {
   this->isAll({10});
   const OrderedRegisterOp before = this->op;
   for (const int index : {-1, 128, 256}) {
      EXPECT_THROW(TypeParam::is(this->op, index, 1), Platform::RangeError);
      EXPECT_THROW(TypeParam::del(this->op, index), Platform::RangeError);
      EXPECT_THROW(TypeParam::at(this->op, index), Platform::RangeError);
   }
   EXPECT_EQ(this->op, before);
}

TYPED_TEST(OrderedRegisterOpArray, ElementAtOrBeyondTheCountIsARangeErrorNotAZero) {
   this->isAll({10, 11});
   EXPECT_EQ(TypeParam::at(this->op, 1), 11u);
   EXPECT_EQ(Failure([this] { TypeParam::at(this->op, 2); }),
             Failure::range("OrderedRegisterOp has no element 2 where it has 2"));
   EXPECT_EQ(Failure([] { TypeParam::at(OrderedRegisterOp(), 0); }),
             Failure::range("OrderedRegisterOp has no element 0 where it has 0"));
}

TYPED_TEST(OrderedRegisterOpArray, DeletingMovesDownWhatIsBehind) {
   this->isAll({10, 11, 12, 13});
   EXPECT_TRUE(TypeParam::del(this->op, 1));
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(10, 12, 13));
   EXPECT_TRUE(TypeParam::del(this->op, 2));
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(10, 12));
   EXPECT_TRUE(TypeParam::del(this->op, 0));
   EXPECT_TRUE(TypeParam::del(this->op, 0));
   EXPECT_TRUE(TypeParam::all(this->op).empty());
}

TYPED_TEST(OrderedRegisterOpArray, DeletingOfAFullArrayLosesOneElementOnly) {
   std::vector<std::uint32_t> expected(128);
   std::iota(expected.begin(), expected.end(), 1000);
   this->isAll(expected);
   EXPECT_TRUE(TypeParam::del(this->op, 64));
   expected.erase(expected.begin() + 64);
   EXPECT_EQ(TypeParam::all(this->op), expected);
   EXPECT_TRUE(TypeParam::del(this->op, 126));
   EXPECT_FALSE(TypeParam::del(this->op, 127));
   expected.pop_back();
   EXPECT_EQ(TypeParam::all(this->op), expected);
}

TYPED_TEST(OrderedRegisterOpArray, DeletingWhatIsNotThereDoesNothing) {
   this->isAll({10, 11});
   EXPECT_FALSE(TypeParam::del(this->op, 2));
   EXPECT_FALSE(TypeParam::del(this->op, 127));
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(10, 11));
}

TYPED_TEST(OrderedRegisterOpArray, DeletingByIteratorReturnsWhereTheNextOneIs) {
   this->isAll({10, 11, 12});
   auto position = TypeParam::delAt(this->op, TypeParam::span(this->op).begin() + 1);
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(10, 12));
   EXPECT_EQ(position, TypeParam::span(this->op).begin() + 1);
   position = TypeParam::delAt(this->op, position);
   EXPECT_THAT(TypeParam::all(this->op), ElementsAre(10));
   EXPECT_EQ(position, TypeParam::span(this->op).end());
}

TYPED_TEST(OrderedRegisterOpArray, DeletingByAnIteratorAtNoElementIsARangeError) {
   this->isAll({10, 11});
   OrderedRegisterOp other = this->op;
   const Failure expected = Failure::range("iterator is at no element of the OrderedRegisterOp");
   EXPECT_EQ(Failure([&] { TypeParam::delAt(this->op, TypeParam::span(this->op).end()); }),
             expected);
   EXPECT_EQ(Failure([&] { TypeParam::delAt(this->op, TypeParam::span(other).begin()); }),
             expected);
   EXPECT_EQ(Failure([&] { TypeParam::delAt(this->op, {}); }), expected);
   EXPECT_EQ(this->op, other);
   OrderedRegisterOp empty;
   EXPECT_EQ(Failure([&] { TypeParam::delAt(empty, TypeParam::span(empty).begin()); }), expected);
}

TYPED_TEST(OrderedRegisterOpArray, DeletingAllLeavesTheOtherArrayAlone) {
   this->op = opOf(1, 2, {10, 11, 12}, {20, 21, 22});
   TypeParam::delAll(this->op);
   EXPECT_EQ(TypeParam::count(this->op), 0u);
   EXPECT_EQ(TypeParam::otherCount(this->op), 3u);
   EXPECT_EQ(this->op.key(), UniqueId(1));
   EXPECT_EQ(this->op.opSize(), 2);
}

TEST(OrderedRegisterOp, OfAKeyHasNothingElse) {
   const OrderedRegisterOp op(UniqueId(7));
   EXPECT_EQ(op.key(), UniqueId(7));
   EXPECT_EQ(op.opSize(), 0);
   EXPECT_EQ(op.regKeyCount(), 0u);
   EXPECT_EQ(op.regValueCount(), 0u);
   EXPECT_EQ(OrderedRegisterOp().key(), UniqueId());
   EXPECT_EQ(OrderedRegisterOp(), OrderedRegisterOp(UniqueId()));
}

TEST(OrderedRegisterOp, SizeIsWhatItIsSetToWhateverTheArraysHold) {
   OrderedRegisterOp op = opOf(1, 200, {10}, {});
   EXPECT_EQ(op.opSize(), 200);
   op.regKeyDelAll();
   EXPECT_EQ(op.opSize(), 200);
   op.opSizeIs(0);
   op.regValueIs(OpIndex(4), 1);
   EXPECT_EQ(op.opSize(), 0);
}

TEST(OrderedRegisterOp, IsTrueUnlessItEqualsTheEmptyRecord) {
   EXPECT_FALSE(OrderedRegisterOp());
   EXPECT_TRUE(opOf(1, 0, {}, {}));
   EXPECT_TRUE(opOf(0, 1, {}, {}));
   EXPECT_TRUE(opOf(0, 0, {0}, {}));
   EXPECT_TRUE(opOf(0, 0, {}, {0}));
   OrderedRegisterOp emptied = opOf(0, 0, {5}, {6});
   emptied.regKeyDelAll();
   EXPECT_TRUE(emptied);
   emptied.regValueDelAll();
   EXPECT_FALSE(emptied) << "what is still stored behind the counts does not matter";
}

TEST(OrderedRegisterOp, IsEqualWhenAllOfItIs) {
   const OrderedRegisterOp op = opOf(1, 2, {3, 4}, {5, 6});
   EXPECT_TRUE(op.isEq(op));
   EXPECT_EQ(op, opOf(1, 2, {3, 4}, {5, 6}));
   EXPECT_NE(op, opOf(2, 2, {3, 4}, {5, 6}));
   EXPECT_NE(op, opOf(std::uint64_t{1} << 40 | 1, 2, {3, 4}, {5, 6}));
   EXPECT_NE(op, opOf(1, 3, {3, 4}, {5, 6}));
   EXPECT_NE(op, opOf(1, 2, {3, 5}, {5, 6}));
   EXPECT_NE(op, opOf(1, 2, {9, 4}, {5, 6}));
   EXPECT_NE(op, opOf(1, 2, {3}, {5, 6}));
   EXPECT_NE(op, opOf(1, 2, {3, 4, 0}, {5, 6}));
   EXPECT_NE(op, opOf(1, 2, {3, 4}, {5, 7}));
   EXPECT_NE(op, opOf(1, 2, {3, 4}, {9, 6}));
   EXPECT_NE(op, opOf(1, 2, {3, 4}, {5}));
   EXPECT_NE(op, opOf(1, 2, {3, 4}, {5, 6, 0}));
   EXPECT_NE(op, opOf(1, 2, {5, 6}, {3, 4}));
}

TEST(OrderedRegisterOp, EqualityDoesNotSeeWhatIsBehindTheCounts) {
   OrderedRegisterOp op = opOf(1, 2, {3, 4}, {5, 6});
   op.regKeyDel(OpIndex(1));
   op.regValueDelAll();
   EXPECT_EQ(op, opOf(1, 2, {3}, {}));
}

TEST(OrderedRegisterOp, IsCopiedWhole) {
   const OrderedRegisterOp op = opOf(1, 2, {3, 4}, {5});
   OrderedRegisterOp copy = op;
   EXPECT_EQ(copy, op);
   copy.regKeyIs(OpIndex(0), CoreRegisterKey(9));
   EXPECT_EQ(op.regKey(OpIndex(0)), CoreRegisterKey(3));
   EXPECT_TRUE(std::is_trivially_copyable_v<OrderedRegisterOp>);
}

TEST(OrderedRegisterOp, CannotBeMadeFromAString) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(OrderedRegisterOp("anything"),
                "TarnRegFile/OrderedRegisterOp: OrderedRegisterOp: assertion failed: "
                "\"No String constructor for OrderedRegisterOp - has collection\" == nullptr");
   EXPECT_DEATH(OrderedRegisterOp{std::string()}, "== nullptr");
}

TEST(OrderedRegisterOp, IsWrittenForPeople) {
   EXPECT_EQ(opOf(0x1122334455667788, 2, {16, 4660}, {1}).stringRep(),
             "Value('TarnRegFile::Sable::OrderedRegisterOp', key=0x1122334455667788, opSize=2, "
             "regKey=[16, 4660], regValue=[1])");
   EXPECT_EQ(OrderedRegisterOp().stringRep(),
             "Value('TarnRegFile::Sable::OrderedRegisterOp', key=0x0000000000000000, opSize=0, "
             "regKey=[], regValue=[])");
}

TEST(OrderedRegisterOp, AsAValueIsShownButTextFromOutsideIsAnErrorAndNoStop) {
   const OrderedRegisterOp op = opOf(1, 2, {3}, {4});
   const Platform::Value value = Platform::Value::of(op);
   EXPECT_EQ(value.typeName(), "TarnRegFile::Sable::OrderedRegisterOp");
   EXPECT_EQ(value.toString(), op.stringRep());
   EXPECT_EQ(value.as<OrderedRegisterOp>(), op);
   const std::string text = op.stringRep();
   Platform::TextRange range(text);
   EXPECT_EQ(Failure([&] { Platform::ValueTraits<OrderedRegisterOp>::read(range); }),
             Failure::range("No String constructor for OrderedRegisterOp - has collection"));
   EXPECT_EQ(range.rest(), text);
}

} // namespace
