#include "nimbo/Transaction.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nimbo/BusTable.h"
#include "nimbo/Connection.h"
#include "nimbo/Frame.h"
#include "tests/support/FakeSmbus.h"
#include "tests/support/SmbusRequests.h"

namespace Nimbo {
namespace {

using TestSupport::FakeSmbus;
using TestSupport::SmbusRequests;

/// A transaction of a connection, and buses 0 "main" and 1 "other" for it.
class TransactionTest : public testing::Test {
protected:
   TransactionTest() {
      BusConfig config;
      config.name = "main";
      main = std::make_shared<FakeSmbus>()->busNew(config);
      config.name = "other";
      config.number = 1;
      other = std::make_shared<FakeSmbus>()->busNew(config);
      table = std::make_shared<const BusTable>(std::vector{main, other});
   }

   /// Takes the requests over and plans them.
   void plan(const SmbusRequests& requests) {
      const std::string payload = requests.payload();
      ASSERT_TRUE(transaction.parse(SmbusRequests::bytes(payload)));
      transaction.plan(table);
   }

   /// The error of a transaction of these requests, which must have failed before anything.
   std::string refusal(const SmbusRequests& requests) {
      plan(requests);
      EXPECT_TRUE(transaction.failed());
      EXPECT_EQ(transaction.bus(), nullptr);
      EXPECT_EQ(response().responses_size(), 0);
      return transaction.error();
   }

   /// What is sent.
   Smbus::TransactionResponse response() {
      std::string frame = "what was in it before";
      transaction.response(frame);
      EXPECT_GE(frame.size(), frameHeaderSize);
      EXPECT_EQ(frame[0], 2);
      const auto byte = [&](std::size_t at) {
         return static_cast<std::size_t>(static_cast<unsigned char>(frame[at]));
      };
      EXPECT_EQ(byte(1) | byte(2) << 8 | byte(3) << 16, frame.size() - frameHeaderSize);
      Smbus::TransactionResponse message;
      EXPECT_TRUE(message.ParseFromString(frame.substr(frameHeaderSize)));
      return message;
   }

   std::shared_ptr<Bus> main;
   std::shared_ptr<Bus> other;
   std::shared_ptr<const BusTable> table;
   Connection connection{1, TarnRegFile::Utils::UnixFdRes(-1), "a test"};
   Transaction& transaction = connection.transaction();
};

TEST_F(TransactionTest, BelongsToItsConnection) {
   EXPECT_EQ(&transaction.connection(), &connection);
   EXPECT_EQ(transaction.bus(), nullptr);
}

TEST_F(TransactionTest, GivesItsRequestsOneByOne) {
   SmbusRequests requests(0x1234);
   requests.read({.device = 0x51, .offset = 0x12}, 4).write({.device = 0x52}, {1, 2});
   plan(requests);
   EXPECT_EQ(transaction.xid(), 0x1234U);
   EXPECT_EQ(transaction.requests(), 2U);
   EXPECT_EQ(transaction.buses(), table);
   EXPECT_EQ(transaction.bus(), main.get());
   EXPECT_EQ(transaction.run(), 2U);
   EXPECT_EQ(transaction.index(), 0U);
   EXPECT_EQ(transaction.request().length(), 4U);
   EXPECT_EQ(transaction.where().device, 0x51);
   EXPECT_EQ(transaction.responseNew(4).size(), 4U);
   transaction.done();
   EXPECT_EQ(transaction.index(), 1U);
   EXPECT_EQ(transaction.where().device, 0x52);
   EXPECT_EQ(transaction.run(), 1U);
   EXPECT_EQ(transaction.responseNew(0).size(), 0U);
   transaction.done();
   EXPECT_EQ(transaction.bus(), nullptr);
   EXPECT_FALSE(transaction.failed());
   EXPECT_EQ(response().responses_size(), 2);
}

TEST_F(TransactionTest, RunsAreOfOneBus) {
   SmbusRequests requests;
   for (const unsigned bus : {0U, 0U, 1U, 0U, 0U, 0U}) {
      requests.read({.bus = bus}, 1);
   }
   plan(requests);
   std::vector<std::pair<Bus*, std::size_t>> runs;
   while (transaction.bus()) {
      runs.emplace_back(transaction.bus(), transaction.run());
      for (std::size_t left = transaction.run(); left > 0; --left) {
         transaction.responseNew(1);
         transaction.done();
      }
   }
   EXPECT_EQ(runs, (std::vector<std::pair<Bus*, std::size_t>>{
                      {main.get(), 2}, {other.get(), 1}, {main.get(), 3}}));
}

TEST_F(TransactionTest, AnswersWithItsNumberAndItsResponses) {
   plan(SmbusRequests(~std::uint64_t{0}).read({}, 3));
   const auto bytes = transaction.responseNew(3);
   std::copy_n("\x01\x00\xff", 3, bytes.begin());
   transaction.done();
   const auto message = response();
   EXPECT_EQ(message.xid(), ~std::uint64_t{0});
   EXPECT_FALSE(message.failed());
   ASSERT_EQ(message.responses_size(), 1);
   EXPECT_EQ(message.responses(0).data(), std::string("\x01\x00\xff", 3));
}

TEST_F(TransactionTest, WithoutRequestsIsOverAtOnce) {
   plan(SmbusRequests(5));
   EXPECT_EQ(transaction.bus(), nullptr);
   EXPECT_FALSE(transaction.failed());
   EXPECT_EQ(response().xid(), 5U);
}

TEST_F(TransactionTest, IsNoneWhenItCannotBeRead) {
   EXPECT_FALSE(transaction.parse(SmbusRequests::bytes("\xff")));
   EXPECT_FALSE(transaction.parse(SmbusRequests::bytes("\x12\x05\x08")));
   EXPECT_TRUE(transaction.parse({}));
}

TEST_F(TransactionTest, LeavesAloneWhatItDoesNotKnow) {
   const std::string payload = SmbusRequests(7).read({}, 1).payload() + "\xfa\x06\x03new";
   ASSERT_TRUE(transaction.parse(SmbusRequests::bytes(payload)));
   transaction.plan(table);
   EXPECT_EQ(transaction.bus(), main.get());
   EXPECT_EQ(transaction.xid(), 7U);
}

// -- what is refused -----------------------------------------------------------------------------

TEST_F(TransactionTest, RefusesAnAddressThatSaysNoSize) {
   SmbusRequests requests;
   requests.read({}, 4).last().set_address(0x12);
   EXPECT_EQ(refusal(requests), "request 1 of 1 (read of 4 bytes): address 0x12: exactly one of "
                                "the bits 57 to 59 must be set");
}

TEST_F(TransactionTest, RefusesARequestForNoBus) {
   EXPECT_EQ(refusal(SmbusRequests().read({.bus = 9, .device = 0x1a, .offset = 0xab}, 1)),
             "request 1 of 1 (read of 1 byte, bus 9, device 0x1a, offset 0xab): there is no such "
             "bus");
   EXPECT_EQ(refusal(SmbusRequests().write({.bus = 9, .controller = 12, .pciBdf = 0x0100}, {1, 2})),
             "request 1 of 1 (write of 2 bytes, bus 9, device 0x50, offset 0x0, controller 12, PCI "
             "function 0000:01:00.0): there is no such bus");
}

TEST_F(TransactionTest, RefusesTypesThatItDoesNotKnow) {
   SmbusRequests requests;
   requests.write({}, {}).last().set_type(static_cast<Smbus::RequestType>(2));
   EXPECT_EQ(refusal(requests), "request 1 of 1 (request of 0 bytes, bus 0, device 0x50, offset "
                                "0x0): request type 2 is not known");
   requests.last().set_type(static_cast<Smbus::RequestType>(-1));
   EXPECT_TRUE(refusal(requests).ends_with("): request type -1 is not known"));
   requests.last().set_type(Smbus::REQUEST_TYPE_WRITE);
   requests.last().set_mastertype(static_cast<Smbus::MasterType>(3));
   EXPECT_TRUE(refusal(requests).ends_with("): master type 3 is not known"));
}

TEST_F(TransactionTest, TakesEveryMasterType) {
   for (const Smbus::MasterType type :
        {Smbus::MASTER_TYPE_DEFAULT, Smbus::MASTER_TYPE_WORD, Smbus::MASTER_TYPE_BLOCK}) {
      SmbusRequests requests;
      requests.read({}, 1).last().set_mastertype(type);
      plan(requests);
      EXPECT_EQ(transaction.bus(), main.get());
   }
}

TEST_F(TransactionTest, RefusesAReadOfNothingAndOneThatIsTooLong) {
   EXPECT_TRUE(
      refusal(SmbusRequests().read({}, 0)).ends_with("): a read takes 1 to 8192 bytes, not 0"));
   EXPECT_TRUE(refusal(SmbusRequests().read({}, 8193))
                  .ends_with("): a read takes 1 to 8192 bytes, not 8193"));
   EXPECT_TRUE(refusal(SmbusRequests().read({}, 0xffffffff))
                  .ends_with("): a read takes 1 to 8192 bytes, not 4294967295"));
   plan(SmbusRequests().read({}, 8192));
   EXPECT_FALSE(transaction.failed());
   plan(SmbusRequests().read({}, 1));
   EXPECT_FALSE(transaction.failed());
}

TEST_F(TransactionTest, RefusesToReadMoreInAllThanAResponseIsToCarry) {
   SmbusRequests requests;
   for (int i = 0; i < 8; ++i) {
      requests.read({}, 8192);
   }
   plan(requests);
   EXPECT_FALSE(transaction.failed());
   requests.read({}, 1);
   EXPECT_EQ(refusal(requests), "request 9 of 9 (read of 1 byte, bus 0, device 0x50, offset 0x0): "
                                "a transaction reads at most 65536 bytes");
}

TEST_F(TransactionTest, RefusesAWriteWhoseDataIsNotOfItsLength) {
   SmbusRequests requests;
   requests.write({}, {1, 2, 3}).last().set_length(2);
   EXPECT_TRUE(refusal(requests).ends_with("): the request says 2 bytes, and carries 3"));
   requests.last().set_length(4);
   EXPECT_TRUE(refusal(requests).ends_with("): the request says 4 bytes, and carries 3"));
   requests.last().clear_data();
   requests.last().set_length(0);
   plan(requests);
   EXPECT_FALSE(transaction.failed());
}

TEST_F(TransactionTest, DoesNotLookAtTheDataOfARead) {
   SmbusRequests requests;
   requests.read({}, 2).last().set_data("anything");
   plan(requests);
   EXPECT_FALSE(transaction.failed());
}

// The offset goes in the same message as the data, and the system takes no longer ones.
TEST_F(TransactionTest, RefusesAWriteThatIsTooLongTogetherWithItsOffset) {
   for (const unsigned offsetBytes : {1U, 2U, 4U}) {
      plan(SmbusRequests().write({.offsetBytes = offsetBytes},
                                 std::vector<std::uint8_t>(8192 - offsetBytes)));
      EXPECT_FALSE(transaction.failed()) << transaction.error();
      EXPECT_TRUE(refusal(SmbusRequests().write({.offsetBytes = offsetBytes},
                                                std::vector<std::uint8_t>(8193 - offsetBytes)))
                     .ends_with("): a write takes at most " + std::to_string(8192 - offsetBytes) +
                                " bytes, not " + std::to_string(8193 - offsetBytes)));
   }
}

TEST_F(TransactionTest, RefusesMoreRequestsThanItTakes) {
   SmbusRequests requests;
   for (int i = 0; i < Transaction::mostRequests; ++i) {
      requests.write({.offset = 0}, {});
   }
   plan(requests);
   EXPECT_FALSE(transaction.failed());
   EXPECT_EQ(transaction.run(), 4096U);
   requests.write({}, {});
   EXPECT_EQ(refusal(requests), "4097 requests in one transaction; at most 4096 are possible");
}

TEST_F(TransactionTest, IsRefusedAsAWholeForAnyOfItsRequests) {
   for (std::size_t bad = 0; bad < 5; ++bad) {
      SmbusRequests requests(7);
      for (std::size_t i = 0; i < 5; ++i) {
         requests.read({.bus = i == bad ? 99U : 0U}, 1);
      }
      const std::string error = refusal(requests);
      EXPECT_TRUE(error.starts_with("request " + std::to_string(bad + 1) + " of 5 (")) << error;
      EXPECT_EQ(response().xid(), 7U);
      EXPECT_EQ(response().error(), error);
      EXPECT_EQ(transaction.run(), 0U);
   }
}

// -- what fails ----------------------------------------------------------------------------------

TEST_F(TransactionTest, ThatFailsKeepsTheResponsesBefore) {
   plan(SmbusRequests(7).read({}, 1).read({.bus = 1, .offset = 2}, 2).read({}, 1));
   transaction.responseNew(1)[0] = 9;
   transaction.done();
   transaction.responseNew(2);
   transaction.fail("it broke");
   EXPECT_TRUE(transaction.failed());
   EXPECT_EQ(transaction.bus(), nullptr);
   EXPECT_EQ(transaction.run(), 0U);
   const auto message = response();
   EXPECT_TRUE(message.failed());
   EXPECT_EQ(message.error(),
             "request 2 of 3 (read of 2 bytes, bus 1 'other', device 0x50, offset 0x2): it broke");
   ASSERT_EQ(message.responses_size(), 1);
   EXPECT_EQ(message.responses(0).data(), "\x09");
}

TEST_F(TransactionTest, MayFailBeforeItsNextRequestHasAResponse) {
   plan(SmbusRequests(7).read({}, 1).read({}, 2));
   transaction.responseNew(1);
   transaction.done();
   transaction.fail("it broke");
   EXPECT_EQ(response().responses_size(), 1);
}

// -- one after the other -------------------------------------------------------------------------

TEST_F(TransactionTest, NothingOfOneIsLeftInTheNext) {
   refusal(SmbusRequests(7).read({}, 1).read({.bus = 9}, 1));
   transaction.over();
   EXPECT_EQ(transaction.buses(), nullptr);
   plan(SmbusRequests(8).write({.bus = 1}, {}));
   EXPECT_EQ(transaction.xid(), 8U);
   EXPECT_EQ(transaction.requests(), 1U);
   EXPECT_EQ(transaction.bus(), other.get());
   EXPECT_EQ(transaction.index(), 0U);
   EXPECT_FALSE(transaction.failed());
   transaction.responseNew(0);
   transaction.done();
   transaction.over();
   const std::string nothing;
   ASSERT_TRUE(transaction.parse(SmbusRequests::bytes(nothing)));
   transaction.plan(table);
   EXPECT_EQ(response().SerializeAsString(), "");
}

TEST_F(TransactionTest, KeepsItsBusesUntilItIsOver) {
   plan(SmbusRequests().read({}, 1));
   const std::weak_ptr<Bus> bus = main;
   main.reset();
   table.reset();
   EXPECT_FALSE(bus.expired());
   transaction.over();
   EXPECT_TRUE(bus.expired());
}

TEST_F(TransactionTest, CanBeUsedAgainAfterALargeOne) {
   SmbusRequests large(7);
   for (int i = 0; i < 1000; ++i) {
      large.read({}, 60);
   }
   plan(large);
   while (transaction.bus()) {
      transaction.responseNew(60);
      transaction.done();
   }
   EXPECT_EQ(response().responses_size(), 1000);
   transaction.over();
   EXPECT_EQ(transaction.requests(), 0U);
   plan(SmbusRequests(8).read({}, 1));
   EXPECT_EQ(transaction.run(), 1U);
}

} // namespace
} // namespace Nimbo
