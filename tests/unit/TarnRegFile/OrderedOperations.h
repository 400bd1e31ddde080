#pragma once

#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>

#include "platform/entity/Types.h"
#include "TarnRegFile/OrderedRegisterOp.h"

/// What the tests of ordered operations' forms share.
namespace OrderedOperations {

using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::OpIndex;
using TarnRegFile::Sable::OrderedRegisterOp;
using TarnRegFile::Sable::UniqueId;

/// The operation that the documentation takes apart.
inline OrderedRegisterOp documentedOp() {
   OrderedRegisterOp op(UniqueId(0x1122334455667788));
   op.opSizeIs(2);
   op.regKeyIs(OpIndex(0), CoreRegisterKey(0x10));
   op.regValueIs(OpIndex(0), 1);
   op.regKeyIs(OpIndex(1), CoreRegisterKey(0x1234));
   op.regValueIs(OpIndex(1), 0xdeadbeef);
   return op;
}

/// The bytes in the documentation's block "hex `name`": of each line those in front of its remark.
inline Platform::Bytes documentedBytes(const std::string& name) {
   std::ifstream page(TARN_DOCS "/ordered-operations.md");
   std::string line;
   while (std::getline(page, line) && line != "```hex " + name) {
   }
   Platform::Bytes bytes;
   while (std::getline(page, line) && line != "```") {
      // Two blanks or more, not those in front, begin the remark.
      const std::size_t begin = line.find_first_not_of(' ');
      std::istringstream words(line.substr(begin, line.find("  ", begin) - begin));
      for (unsigned byte = 0; words >> std::hex >> byte;) {
         bytes.push_back(static_cast<std::uint8_t>(byte));
      }
   }
   if (bytes.empty()) {
      throw std::runtime_error("no block " + name + " in the documentation");
   }
   return bytes;
}

/// A number of random length, so that short and long varints are as likely.
inline std::uint32_t randomNumber(std::mt19937& random) {
   return static_cast<std::uint32_t>(random()) >> (random() % 32);
}

inline OrderedRegisterOp randomOp(std::mt19937& random) {
   const std::uint64_t key = std::uint64_t{randomNumber(random)} << 32 | randomNumber(random);
   OrderedRegisterOp op{UniqueId(random() % 8 == 0 ? 0 : key)};
   op.opSizeIs(static_cast<std::uint8_t>(random()));
   const auto randomCount = [&] { return random() % 4 == 0 ? 128 : random() % 129; };
   const auto keys = randomCount();
   for (std::uint32_t i = 0; i < keys; ++i) {
      op.regKeyIs(OpIndex(i), CoreRegisterKey(randomNumber(random)));
   }
   const auto values = randomCount();
   for (std::uint32_t i = 0; i < values; ++i) {
      op.regValueIs(OpIndex(i), randomNumber(random));
   }
   return op;
}

} // namespace OrderedOperations
