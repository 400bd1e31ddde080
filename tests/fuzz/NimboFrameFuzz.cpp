// Gives any bytes, in pieces of any size, to what the SMBus daemon reads a connection with, and has
// the transactions in them done on buses that answer and fail. The frames must be those that are
// in the bytes; nothing is done of a transaction that is refused; every response has what its
// requests ask for.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nimbo/Bus.h"
#include "nimbo/BusTable.h"
#include "nimbo/Connection.h"
#include "tests/fuzz/Check.h"

namespace {

using Nimbo::Bus;
using Nimbo::FrameReader;
using Nimbo::Transaction;

std::size_t transfers = 0;
bool isBegun = false;

/// Answers; devices from 0x70 on fail.
class Backend : public Nimbo::BusBackend {
public:
   void begin() override { FUZZ_CHECK(!std::exchange(isBegun, true)); }
   void end() noexcept override { FUZZ_CHECK(std::exchange(isBegun, false)); }

   int write(std::uint8_t device, std::span<const std::uint8_t> offset,
             std::span<const std::uint8_t> data) override {
      FUZZ_CHECK(offset.size() + data.size() <= Transaction::longestWrite);
      return _transfer(device, offset);
   }

   int read(std::uint8_t device, std::span<const std::uint8_t> offset,
            std::span<std::uint8_t> data) override {
      FUZZ_CHECK(!data.empty() && data.size() <= Transaction::longestRead);
      std::fill(data.begin(), data.end(), device);
      return _transfer(device, offset);
   }

private:
   static int _transfer(std::uint8_t device, std::span<const std::uint8_t> offset) {
      FUZZ_CHECK(isBegun && device < 0x80);
      FUZZ_CHECK(offset.size() == 1 || offset.size() == 2 || offset.size() == 4);
      ++transfers;
      return device < 0x70 ? 0 : EIO;
   }
};

std::shared_ptr<Bus> bus(const char* name, unsigned number,
                         std::optional<std::uint32_t> pciBdf = std::nullopt,
                         std::optional<std::uint16_t> controller = std::nullopt) {
   Nimbo::BusConfig config;
   config.name = name;
   config.number = static_cast<std::uint8_t>(number);
   config.pciBdf = pciBdf;
   config.controller = controller;
   return std::make_shared<Bus>(config, std::make_unique<Backend>());
}

const auto table = std::make_shared<const Nimbo::BusTable>(
   std::vector{bus("any", 0), bus("pci", 1, 0x100), bus("controller", 1, std::nullopt, 5),
               bus("both", 1, 0x100, 5), bus("last", 127)});

/// The next frame of `stream`, if all of it is there; `isGood` unless it can be seen to be none.
std::optional<std::string_view> frameOf(std::string_view stream, bool& isGood) {
   const auto byte = [&](std::size_t at) {
      return std::size_t{static_cast<std::uint8_t>(stream[at])};
   };
   isGood = stream.empty() || byte(0) == 1;
   if (!isGood || stream.size() < 4) {
      return std::nullopt;
   }
   const std::size_t length = byte(1) | byte(2) << 8 | byte(3) << 16;
   isGood = length <= 65535;
   if (!isGood || stream.size() < 4 + length) {
      return std::nullopt;
   }
   return stream.substr(4, length);
}

/// As the server does it. False if the frame is no message.
bool serve(Nimbo::Connection& connection, std::span<const std::uint8_t> payload) {
   Transaction& transaction = connection.transaction();
   Smbus::TransactionRequest request;
   const bool isMessage = request.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
   FUZZ_CHECK(transaction.parse(payload) == isMessage);
   if (!isMessage) {
      return false;
   }
   transfers = 0;
   transaction.plan(table);
   const bool isRefused = transaction.failed();
   FUZZ_CHECK(!isRefused || transaction.bus() == nullptr);
   std::size_t turns = 0;
   while (Bus* const next = transaction.bus()) {
      FUZZ_CHECK(transaction.run() > 0 && ++turns <= transaction.requests());
      FUZZ_CHECK(next->enter(transaction));
      next->run(transaction);
      FUZZ_CHECK(next->next() == nullptr && !isBegun);
   }
   std::string frame;
   transaction.response(frame);
   FUZZ_CHECK(frame.size() >= 4 && frame.size() < 4 + 0x40000);
   Smbus::TransactionResponse response;
   FUZZ_CHECK(response.ParseFromString(frame.substr(4)));
   FUZZ_CHECK(response.xid() == request.xid());
   FUZZ_CHECK(response.failed() == !response.error().empty());
   const int responses = response.responses_size();
   if (isRefused) {
      FUZZ_CHECK(transfers == 0 && responses == 0);
   } else if (response.failed()) {
      FUZZ_CHECK(transfers == static_cast<std::size_t>(responses) + 1);
   } else {
      FUZZ_CHECK(transfers == transaction.requests() && responses == request.requests_size());
   }
   for (int i = 0; i < responses; ++i) {
      const Smbus::Request& each = request.requests(i);
      const std::size_t expected = each.type() == Smbus::REQUEST_TYPE_READ ? each.length() : 0;
      FUZZ_CHECK(response.responses(i).data().size() == expected);
   }
   connection.answerIs();
   return true;
}

} // namespace

/// The first byte says of what size the pieces are.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   if (size == 0) {
      return 0;
   }
   std::size_t piece = std::size_t{data[0]} + 1;
   piece = piece > 250 ? 0x20000 : piece;
   const std::string_view all(reinterpret_cast<const char*>(data) + 1, size - 1);
   std::string_view expected = all; // from the next frame on
   std::string_view coming = all;
   Nimbo::Connection connection(1, TarnRegFile::Utils::UnixFdRes(-1), "a fuzzer");
   FrameReader& reader = connection.reader();
   for (;;) {
      bool isGood = true;
      const std::string_view come = expected.substr(0, expected.size() - coming.size());
      const std::optional<std::string_view> frame = frameOf(come, isGood);
      switch (reader.state()) {
      case FrameReader::State::complete: {
         const auto payload = reader.payload();
         FUZZ_CHECK(frame && std::equal(payload.begin(), payload.end(), frame->begin(),
                                        frame->end(), [](std::uint8_t left, char right) {
                                           return left == static_cast<std::uint8_t>(right);
                                        }));
         expected.remove_prefix(4 + frame->size());
         if (!serve(connection, payload)) {
            return 0;
         }
         reader.next();
         break;
      }
      case FrameReader::State::wrongKind:
      case FrameReader::State::tooLong:
         FUZZ_CHECK(!isGood);
         return 0;
      case FrameReader::State::partial: {
         FUZZ_CHECK(isGood && !frame && reader.empty() == come.empty());
         if (coming.empty()) {
            return 0;
         }
         const auto space = reader.space();
         FUZZ_CHECK(!space.empty() && space.size() <= FrameReader::longestRequest + 4);
         const std::size_t count = std::min({space.size(), piece, coming.size()});
         std::copy_n(coming.begin(), count, space.begin());
         reader.received(count);
         coming.remove_prefix(count);
         break;
      }
      }
   }
}
