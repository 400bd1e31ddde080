#include "nimbo/StatusTable.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace Nimbo {
namespace {

using nlohmann::ordered_json;
using testing::HasSubstr;
using testing::StartsWith;

std::string headFor(const char* uptime) {
   const std::string text =
      statusTable(ordered_json::parse(std::string(R"({"uptime_seconds": )") + uptime + "}"));
   return text.substr(0, text.find('\n'));
}

TEST(StatusTable, ShowsDaemonBusesFailuresAndClients) {
   const ordered_json status = ordered_json::parse(R"({
      "schema": "nimbod-status/1", "version": "1.2.3", "pid": 77, "uptime_seconds": 3725.5,
      "socket": "/run/platform/smbus",
      "buses": [
         {"name": "fans", "number": 3, "device": "/dev/i2c-7", "simulated": false,
          "controller": null, "pci": null, "transactions": 12345, "requests": 99999, "failures": 2,
          "waiting": 1, "busy_seconds": 0.25,
          "last_failure": {"text": "no answer", "time": "2026-05-31T12:34:56.789Z"}},
         {"name": "x", "number": 127, "device": "/dev/i2c-8", "simulated": true,
          "controller": 2, "pci": "0000:03:00.0", "transactions": 0, "requests": 0, "failures": 0,
          "waiting": 0, "busy_seconds": null, "last_failure": null}],
      "clients": {"connected": 1, "limit": 256, "accepted": 4, "refused": 1, "over_limit": 2,
                  "malformed": 3},
      "connections": [{"id": 4, "pid": 4711, "uid": 0, "gid": 100, "transactions": 9,
                       "requests": 27}]})");
   EXPECT_EQ(
      statusTable(status),
      "nimbod 1.2.3, process 77, at /run/platform/smbus, up 1 h 2 min\n"
      "1 of at most 256 clients; 4 taken in, 1 refused, 2 too many, 3 malformed\n"
      "\n"
      "BUS   NUMBER  TRANSACTIONS  REQUESTS  FAILURES  WAITING   BUSY  DEVICE\n"
      "fans       3         12345     99999         2        1  0.2 s  /dev/i2c-7\n"
      "x        127             0         0         0        0      -  /dev/i2c-8 (simulated) "
      "controller 2 pci 0000:03:00.0\n"
      "\n"
      "LAST FAILURES\n"
      "2026-05-31T12:34:56.789Z  fans: no answer\n"
      "\n"
      "CLIENT  PROCESS  USER  GROUP  TRANSACTIONS  REQUESTS\n"
      "     4     4711     0    100             9        27\n");
}

TEST(StatusTable, TimesAreShownAsPeopleSayThem) {
   EXPECT_THAT(headFor("0.04"), testing::EndsWith("up 0.0 s"));
   EXPECT_THAT(headFor("59.94"), testing::EndsWith("up 59.9 s"));
   EXPECT_THAT(headFor("60"), testing::EndsWith("up 1 min 0 s"));
   EXPECT_THAT(headFor("3599.9"), testing::EndsWith("up 59 min 59 s"));
   EXPECT_THAT(headFor("3600"), testing::EndsWith("up 1 h 0 min"));
   EXPECT_THAT(headFor("86399"), testing::EndsWith("up 23 h 59 min"));
   EXPECT_THAT(headFor("183600"), testing::EndsWith("up 2 d 3 h"));
   for (const char* odd : {"-1", "1e300", "\"x\"", "null", "[]"}) {
      EXPECT_THAT(headFor(odd), testing::EndsWith("up -")) << odd;
   }
}

TEST(StatusTable, ClientsThatAreNotDescribedAreCounted) {
   EXPECT_THAT(
      statusTable(
         ordered_json::parse(R"({"clients": {"connected": 3}, "connections": [{"id": 1}]})")),
      testing::EndsWith("     1        -     -      -             -         -\nand 2 more\n"));
}

TEST(StatusTable, WhatIsMissingOrOfAnotherKindIsADash) {
   EXPECT_EQ(statusTable(ordered_json::object()),
             "nimbod -, process -, at -, up -\n"
             "- of at most - clients; - taken in, - refused, - too many, - malformed\n"
             "\n"
             "BUS  NUMBER  TRANSACTIONS  REQUESTS  FAILURES  WAITING  BUSY  DEVICE\n");
   for (const char* text : {R"({"buses": 3, "clients": [], "connections": "x", "version": {}})",
                            R"({"buses": [1, [], null], "connections": [3], "clients": 7})",
                            R"({"buses": [{"last_failure": {}, "controller": [], "pci": 3}]})",
                            R"({"buses": {"a": 1}, "connections": {"b": 2}})", "[]", "3", "null"}) {
      EXPECT_THAT(statusTable(ordered_json::parse(text)), StartsWith("nimbod -")) << text;
   }
}

TEST(StatusTable, NothingSteersATerminal) {
   const std::string text = statusTable(ordered_json::parse(
      R"({"version": "\u001b[31m", "buses": [{"name": "a\nb", "device": "\u202e", )"
      R"("last_failure": {"text": "\u0007", "time": "\r"}}]})"));
   EXPECT_THAT(text, HasSubstr("\\x1b[31m"));
   EXPECT_THAT(text, HasSubstr("a\\nb"));
   EXPECT_EQ(text.find_first_of("\x1b\r\x07"), std::string::npos);
   EXPECT_EQ(text.find("\xe2\x80\xae"), std::string::npos);
}

} // namespace
} // namespace Nimbo
