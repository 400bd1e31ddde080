#include "platform/hardware/CoreRegisterDescriptor.h"

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "platform/entity/Value.h"

namespace {

using Hardware::CoreRegisterDescriptor;

TEST(CoreRegisterDescriptor, IsAWritableRegisterAtZeroUnlessSaidOtherwise) {
   EXPECT_EQ(CoreRegisterDescriptor().address, 0u);
   EXPECT_FALSE(CoreRegisterDescriptor().notWritable);
}

TEST(CoreRegisterDescriptor, IsEqualWhenBothFieldsAre) {
   EXPECT_EQ(CoreRegisterDescriptor(4, true), CoreRegisterDescriptor(4, true));
   EXPECT_NE(CoreRegisterDescriptor(4, true), CoreRegisterDescriptor(5, true));
   EXPECT_NE(CoreRegisterDescriptor(4, true), CoreRegisterDescriptor(4, false));
}

TEST(CoreRegisterDescriptor, ItsStringFormRoundTrips) {
   const CoreRegisterDescriptor descriptor(64, true);
   const std::string text = Platform::Value::of<CoreRegisterDescriptor>(descriptor).toString();
   EXPECT_EQ(text, "Value('Hardware::CoreRegisterDescriptor', address=64, notWritable=true)");
   Platform::TextRange range(text);
   EXPECT_EQ(CoreRegisterDescriptor(range), descriptor);
   EXPECT_TRUE(range.empty());
}

TEST(CoreRegisterDescriptor, WhatIsNotItsStringFormIsRefused) {
   const char* text = "Value('Hardware::CoreRegisterDescriptor', address=64)";
   Platform::TextRange range(text);
   EXPECT_THROW((CoreRegisterDescriptor(range)), Platform::RangeError);
   EXPECT_EQ(range.rest(), text);
}

} // namespace
