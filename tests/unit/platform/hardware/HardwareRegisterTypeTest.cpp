#include "platform/hardware/HardwareRegisterType.h"

#include <gtest/gtest.h>

#include "platform/hardware/HardwareRegister.h"

namespace {

using Hardware::HardwareRegister;
using Hardware::HardwareRegisterType;

TEST(HardwareRegisterType, IsStoredInEightBits) {
   EXPECT_EQ(sizeof(HardwareRegisterType), 1u);
}

TEST(HardwareRegisterType, ZeroIsUnknown) {
   EXPECT_EQ(HardwareRegisterType{}, HardwareRegisterType::unknown);
   EXPECT_EQ(static_cast<int>(HardwareRegisterType::unknown), 0);
}

TEST(HardwareRegisterType, EveryNameGivesItsTypeAndBack) {
   const char* const names[] = {"unknown", "cfg",       "status", "counter", "control", "id",
                                "scratch", "interrupt", "mask",   "sensor",  "led",     "data"};
   for (std::uint8_t value = 0; value < 12; ++value) {
      const auto type = static_cast<HardwareRegisterType>(value);
      EXPECT_EQ(HardwareRegister::regTypeToString(type), names[value]);
      EXPECT_EQ(HardwareRegister::regTypeFromString(names[value]), type);
   }
}

TEST(HardwareRegisterType, AnyOtherTextIsUnknown) {
   for (const char* text : {"", "CFG", " cfg", "cfg ", "cf", "cfgs", "7"}) {
      EXPECT_EQ(HardwareRegister::regTypeFromString(text), HardwareRegisterType::unknown) << text;
   }
   using namespace std::string_view_literals;
   EXPECT_EQ(HardwareRegister::regTypeFromString("cfg\0"sv), HardwareRegisterType::unknown);
}

TEST(HardwareRegisterType, ANumberWithoutANameReadsUnknown) {
   EXPECT_EQ(HardwareRegister::regTypeToString(static_cast<HardwareRegisterType>(12)), "unknown");
   EXPECT_EQ(HardwareRegister::regTypeToString(static_cast<HardwareRegisterType>(255)), "unknown");
}

TEST(HardwareRegisterType, IsAnEnumOfTheFramework) {
   EXPECT_EQ(Platform::enumString(HardwareRegisterType::counter), "counter");
   EXPECT_EQ(Platform::enumInstance<HardwareRegisterType>("led"), HardwareRegisterType::led);
}

} // namespace
