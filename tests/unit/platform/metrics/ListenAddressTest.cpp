#include "platform/metrics/ListenAddress.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace {

using Platform::Metrics::ListenAddress;

std::string refusal(std::string_view text) {
   try {
      return "accepted as " + ListenAddress(text).text();
   } catch (const std::invalid_argument& error) {
      return error.what();
   }
}

TEST(ListenAddress, HasAddressAndPort) {
   const ListenAddress address("10.1.2.3:9100");
   EXPECT_EQ(address.address(), "10.1.2.3");
   EXPECT_EQ(address.port(), 9100);
   EXPECT_FALSE(address.isV6());
   EXPECT_EQ(address.text(), "10.1.2.3:9100");
}

TEST(ListenAddress, V6AddressIsInBrackets) {
   const ListenAddress address("[fe80::1]:9100");
   EXPECT_EQ(address.address(), "fe80::1");
   EXPECT_EQ(address.port(), 9100);
   EXPECT_TRUE(address.isV6());
   EXPECT_EQ(address.text(), "[fe80::1]:9100");
   EXPECT_EQ(ListenAddress("[::]:0").text(), "[::]:0");
}

TEST(ListenAddress, WithoutAnAddressItIsTheLoopback) {
   EXPECT_EQ(ListenAddress("9100").text(), "127.0.0.1:9100");
   EXPECT_EQ(ListenAddress(":9100").text(), "127.0.0.1:9100");
   EXPECT_EQ(ListenAddress("localhost:9100").text(), "127.0.0.1:9100");
}

TEST(ListenAddress, AllAddressesMustBeAskedFor) {
   EXPECT_EQ(ListenAddress("0.0.0.0:9100").text(), "0.0.0.0:9100");
}

TEST(ListenAddress, EveryPortIsTaken) {
   EXPECT_EQ(ListenAddress("0").port(), 0);
   EXPECT_EQ(ListenAddress("65535").port(), 65535);
}

TEST(ListenAddress, BadPortIsRefused) {
   for (const char* text : {"", ":", "127.0.0.1:", "127.0.0.1:x", "65536", "-1", "+1", "80s", " 80",
                            "80 ", "80,81", "127.0.0.1", "[::1]:"}) {
      EXPECT_EQ(refusal(text),
                "address '" + std::string(text) + "': expected a port, 0 to 65535, at the end");
   }
}

TEST(ListenAddress, BadAddressIsRefused) {
   for (const char* text : {"fpga:80", "1.2.3:80", "1.2.3.4.5:80", "256.0.0.1:80", " 1.2.3.4:80"}) {
      EXPECT_EQ(refusal(text), "address '" + std::string(text) +
                                  "': expected ADDRESS:PORT with a numeric address");
   }
   for (const char* text : {"[]:80", "[1.2.3.4]:80", "[::g]:80", "[:::]:80"}) {
      EXPECT_EQ(refusal(text), "address '" + std::string(text) +
                                  "': what is in the brackets is not an IPv6 address");
   }
   for (const char* text : {"::1:80", "::1", "[::1]", "[::1:80"}) {
      EXPECT_EQ(refusal(text), "address '" + std::string(text) +
                                  "': an IPv6 address goes in brackets, as in [::1]:9100");
   }
}

TEST(ListenAddress, ZeroByteDoesNotHideTheRest) {
   EXPECT_THROW(ListenAddress(std::string_view("127.0.0.1\0x:80", 14)), std::invalid_argument);
}

} // namespace
