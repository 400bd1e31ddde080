// How PCI functions are written on command lines and in board files.

#include "board/PciFunction.h"

#include <gtest/gtest.h>

namespace Board {
namespace {

using TarnRegFile::PciAddress;

TEST(PciFunction, IsReadWithAndWithoutItsDomain) {
   EXPECT_EQ(pciFunctionFrom("0000:03:00.0"), (PciAddress{0, 3, 0, 0}));
   EXPECT_EQ(pciFunctionFrom("03:00.1"), (PciAddress{0, 3, 0, 1}));
   EXPECT_EQ(pciFunctionFrom("abcd:ef:1f.7"), (PciAddress{0xabcd, 0xef, 0x1f, 7}));
   EXPECT_EQ(pciFunctionFrom("ABCD:EF:1F.7"), (PciAddress{0xabcd, 0xef, 0x1f, 7}));
   EXPECT_EQ(pciFunctionFrom("0000:00:00.0"), PciAddress());
}

TEST(PciFunction, IsNothingElse) {
   for (const char* text : {"",
                            ":",
                            "::",
                            ".",
                            "3",
                            "03:00",
                            "03:00.",
                            "3:00.0",
                            "03:0.0",
                            "003:00.0",
                            "03:00.00",
                            "03:00.8",
                            "03:20.0",
                            "03:00.g",
                            "g3:00.0",
                            "03:00.0 ",
                            " 03:00.0",
                            "03.00.0",
                            "03:00:0",
                            "0000:03:00",
                            "000:03:00.0",
                            "00000:03:00.0",
                            ":03:00.0",
                            "0000:03:00.0:",
                            "-000:03:00.0",
                            "0x00:03:00.0",
                            "+3:00.0",
                            "0000:0000:03:00.0"}) {
      EXPECT_FALSE(pciFunctionFrom(text)) << text;
   }
}

TEST(PciFunction, IsWrittenAsTheKernelWritesIt) {
   EXPECT_EQ(pciFunctionText({0, 3, 0, 1}), "0000:03:00.1");
   EXPECT_EQ(pciFunctionText({0xabcd, 0xef, 0x1f, 7}), "abcd:ef:1f.7");
}

} // namespace
} // namespace Board
