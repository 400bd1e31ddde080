#include "nimbo/FrameReader.h"

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "tests/support/SmbusRequests.h"

namespace Nimbo {
namespace {

using State = FrameReader::State;
using TestSupport::SmbusRequests;

std::string framed(const std::string& payload) {
   return SmbusRequests::framed(1, payload);
}

/// Puts in as much of `bytes` as there is space for; returns how much that was.
std::size_t put(FrameReader& reader, std::string_view bytes) {
   const std::span<std::uint8_t> space = reader.space();
   const std::size_t count = std::min(bytes.size(), space.size());
   std::copy_n(bytes.begin(), count, space.begin());
   reader.received(count);
   return count;
}

/// Puts in all of `bytes`, for which the reader has to have space as long as it is partial.
void putAll(FrameReader& reader, std::string_view bytes) {
   while (!bytes.empty()) {
      ASSERT_EQ(reader.state(), State::partial);
      const std::size_t count = put(reader, bytes);
      ASSERT_GT(count, 0U);
      bytes.remove_prefix(count);
   }
}

std::string payload(const FrameReader& reader) {
   const auto bytes = reader.payload();
   return {bytes.begin(), bytes.end()};
}

TEST(FrameReader, HasNothingAtFirst) {
   FrameReader reader;
   EXPECT_EQ(reader.state(), State::partial);
   EXPECT_TRUE(reader.empty());
   EXPECT_FALSE(reader.space().empty());
}

TEST(FrameReader, TakesAFrameByteByByte) {
   FrameReader reader;
   const std::string frame = framed("abc");
   for (std::size_t i = 0; i < frame.size(); ++i) {
      EXPECT_EQ(reader.state(), State::partial) << i;
      EXPECT_EQ(reader.empty(), i == 0);
      ASSERT_EQ(put(reader, frame.substr(i, 1)), 1U);
   }
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_EQ(payload(reader), "abc");
   EXPECT_EQ(reader.kind(), 1);
   EXPECT_EQ(reader.length(), 3U);
   reader.next();
   EXPECT_EQ(reader.state(), State::partial);
   EXPECT_TRUE(reader.empty());
}

TEST(FrameReader, TakesTwoFramesAndAHalfInOnePiece) {
   FrameReader reader;
   putAll(reader, framed("abc") + framed("") + framed("defg").substr(0, 6));
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_EQ(payload(reader), "abc");
   reader.next();
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_EQ(payload(reader), "");
   reader.next();
   ASSERT_EQ(reader.state(), State::partial);
   EXPECT_FALSE(reader.empty());
   putAll(reader, framed("defg").substr(6));
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_EQ(payload(reader), "defg");
}

TEST(FrameReader, AFrameOfNothingIsComplete) {
   FrameReader reader;
   putAll(reader, framed(""));
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_TRUE(reader.payload().empty());
   reader.next();
   EXPECT_TRUE(reader.empty());
}

TEST(FrameReader, TakesTheLongestFrame) {
   FrameReader reader;
   const std::string longest(FrameReader::longestRequest, 'x');
   putAll(reader, framed(longest));
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_EQ(payload(reader), longest);
}

TEST(FrameReader, RefusesALongerOneAtItsHeader) {
   for (const std::string_view header :
        {std::string_view("\x01\x00\x00\x01", 4), std::string_view("\x01\xff\xff\xff", 4),
         std::string_view("\x01\x00\x00\x80", 4)}) {
      FrameReader reader;
      putAll(reader, header.substr(0, 3));
      EXPECT_EQ(reader.state(), State::partial);
      putAll(reader, header.substr(3));
      EXPECT_EQ(reader.state(), State::tooLong);
   }
   FrameReader reader;
   putAll(reader, std::string_view("\x01\x00\x00\x01", 4));
   EXPECT_EQ(reader.length(), 0x10000U);
}

TEST(FrameReader, NeverHoldsMoreThanOneFrameThatItTakes) {
   FrameReader reader;
   putAll(reader, std::string_view("\x01\xff\xff\xff", 4));
   EXPECT_LE(reader.space().size(), FrameReader::longestRequest);
   FrameReader other;
   putAll(other, std::string_view("\x01\xff\xff\x00", 4));
   EXPECT_EQ(other.space().size(), FrameReader::longestRequest);
}

TEST(FrameReader, RefusesAWrongKindAtItsFirstByte) {
   for (unsigned kind = 0; kind < 256; ++kind) {
      FrameReader reader;
      const char byte = static_cast<char>(kind);
      putAll(reader, std::string_view(&byte, 1));
      EXPECT_EQ(reader.state(), kind == 1 ? State::partial : State::wrongKind) << kind;
      EXPECT_EQ(reader.kind(), kind);
   }
}

TEST(FrameReader, RefusesAWrongKindBehindAGoodFrame) {
   FrameReader reader;
   putAll(reader, framed("abc") + "\x02");
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_EQ(payload(reader), "abc");
   reader.next();
   EXPECT_EQ(reader.state(), State::wrongKind);
   EXPECT_EQ(reader.kind(), 2);
}

TEST(FrameReader, LengthsAreLeastSignificantByteFirst) {
   FrameReader reader;
   putAll(reader, std::string_view("\x01\x34\x12\x00", 4));
   EXPECT_EQ(reader.length(), 0x1234U);
   EXPECT_EQ(reader.state(), State::partial);
}

TEST(FrameReader, GivesTheMemoryOfALongFrameBack) {
   FrameReader reader;
   const std::size_t usual = reader.space().size();
   putAll(reader, framed(std::string(60000, 'x')));
   reader.next();
   EXPECT_EQ(reader.space().size(), usual);
}

TEST(FrameReader, KeepsWhatCameBehindALongFrame) {
   FrameReader reader;
   const std::string longer = framed(std::string(60000, 'x'));
   const std::string next = framed(std::string(5000, 'y'));
   // A reader that is longer than its frame gets some of the next.
   putAll(reader, longer.substr(0, longer.size() - 1));
   put(reader, longer.substr(longer.size() - 1) + next);
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_EQ(payload(reader).size(), 60000U);
   reader.next();
   EXPECT_TRUE(reader.empty());
   putAll(reader, next);
   ASSERT_EQ(reader.state(), State::complete);
   EXPECT_EQ(payload(reader), std::string(5000, 'y'));
}

TEST(FrameReader, GivesEveryFrameOfAnyStreamInAnyPieces) {
   std::mt19937 random(7);
   for (int round = 0; round < 20; ++round) {
      std::vector<std::string> payloads;
      std::string stream;
      for (int i = 0; i < 30; ++i) {
         const std::size_t size = random() % 10 == 0 ? random() % 0x10000 : random() % 200;
         payloads.emplace_back(size, static_cast<char>('a' + i));
         stream += framed(payloads.back());
      }
      FrameReader reader;
      std::size_t frames = 0;
      for (std::string_view left = stream; !left.empty();) {
         const std::size_t most = 1 + random() % (random() % 5 == 0 ? 0x10000 : 300);
         left.remove_prefix(put(reader, left.substr(0, most)));
         while (reader.state() == State::complete) {
            ASSERT_LT(frames, payloads.size());
            ASSERT_EQ(payload(reader), payloads[frames]);
            ++frames;
            reader.next();
         }
         ASSERT_EQ(reader.state(), State::partial);
      }
      EXPECT_EQ(frames, payloads.size());
      EXPECT_TRUE(reader.empty());
   }
}

} // namespace
} // namespace Nimbo
