#include "platform/hardware/HardwareRegister.h"

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "platform/entity/Value.h"

namespace {

using Hardware::HardwareRegister;
using Hardware::HardwareRegisterType;

HardwareRegister sample() {
   HardwareRegister record;
   record.name = "RX[3]";
   record.address = 0x40;
   record.width = 16;
   record.arraySize = 8;
   record.accessWidth = 31;
   record.type = HardwareRegisterType::counter;
   record.writable = true;
   return record;
}

TEST(HardwareRegister, ADefaultConstructedOneIsTheEmptyRecord) {
   const HardwareRegister empty;
   EXPECT_EQ(empty.name, "");
   EXPECT_EQ(empty.address, 0u);
   EXPECT_EQ(empty.width, 0u);
   EXPECT_EQ(empty.arraySize, 0u);
   EXPECT_EQ(empty.accessWidth, 32u);
   EXPECT_EQ(empty.type, HardwareRegisterType::unknown);
   EXPECT_FALSE(empty.writable);
}

TEST(HardwareRegister, IsEqualWhenAllFieldsAre) {
   EXPECT_TRUE(sample().isEq(sample()));
   EXPECT_EQ(sample(), sample());
   EXPECT_TRUE(HardwareRegister().isEq(HardwareRegister()));
}

TEST(HardwareRegister, DiffersWhenAnyOneFieldDoes) {
   using Change = void (*)(HardwareRegister&);
   const Change changes[] = {
      [](HardwareRegister& r) { r.name += "x"; },
      [](HardwareRegister& r) { r.address ^= 0x80000000; },
      [](HardwareRegister& r) { ++r.width; },
      [](HardwareRegister& r) { ++r.arraySize; },
      [](HardwareRegister& r) { ++r.accessWidth; },
      [](HardwareRegister& r) { r.type = HardwareRegisterType::led; },
      [](HardwareRegister& r) { r.writable = false; },
   };
   for (const Change change : changes) {
      HardwareRegister other = sample();
      change(other);
      EXPECT_FALSE(other.isEq(sample()));
      EXPECT_FALSE(sample() == other);
   }
}

TEST(HardwareRegister, IsWrittenFieldByFieldInTheirOrder) {
   EXPECT_EQ(sample().stringRep(),
             "Value('Hardware::HardwareRegister', name='RX[3]', address=64, width=16, arraySize=8, "
             "accessWidth=31, type=counter, writable=true)");
}

TEST(HardwareRegister, ReadsBackWhatItWrote) {
   for (HardwareRegister record : {sample(), HardwareRegister()}) {
      record.name += "'\\\n\xff";
      const std::string text = record.stringRep() + " rest";
      Platform::TextRange range(text);
      EXPECT_EQ(HardwareRegister(range), record);
      EXPECT_EQ(range.rest(), " rest");
   }
}

TEST(HardwareRegister, ABadStringFormLeavesTheRangeWhereItWas) {
   const std::string good = sample().stringRep();
   for (std::size_t length = 0; length < good.size(); ++length) {
      const std::string text = good.substr(0, length);
      Platform::TextRange range(text);
      EXPECT_THROW(HardwareRegister{range}, Platform::RangeError) << text;
      EXPECT_EQ(range.rest(), text);
   }
}

TEST(HardwareRegister, IsAValueOfTheFramework) {
   const Platform::Value value = Platform::Value::of(sample());
   EXPECT_EQ(value.typeName(), "Hardware::HardwareRegister");
   EXPECT_EQ(value.as<HardwareRegister>(), sample());
}

} // namespace
