#include "nimbo/BusTable.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/FakeSmbus.h"

namespace Nimbo {
namespace {

std::shared_ptr<Bus> bus(std::string name, unsigned number,
                         std::optional<std::uint32_t> pciBdf = std::nullopt,
                         std::optional<std::uint16_t> controller = std::nullopt) {
   BusConfig config;
   config.name = std::move(name);
   config.number = static_cast<std::uint8_t>(number);
   config.pciBdf = pciBdf;
   config.controller = controller;
   return std::make_shared<TestSupport::FakeSmbus>()->busNew(config);
}

std::string found(const BusTable& table, unsigned number, std::uint32_t pciBdf = 0,
                  unsigned controller = 0) {
   AddressWord where;
   where.bus = static_cast<std::uint8_t>(number);
   where.controller = static_cast<std::uint16_t>(controller);
   const Bus* const bus = table.find(where, pciBdf);
   return bus ? bus->name() : "none";
}

TEST(BusTable, WithoutBusesFindsNone) {
   const BusTable table({});
   EXPECT_EQ(found(table, 0), "none");
   EXPECT_EQ(found(table, 127), "none");
   EXPECT_TRUE(table.buses().empty());
}

TEST(BusTable, FindsABusByItsNumber) {
   const BusTable table({bus("first", 0), bus("last", 127), bus("other", 3)});
   EXPECT_EQ(found(table, 0), "first");
   EXPECT_EQ(found(table, 127), "last");
   EXPECT_EQ(found(table, 3), "other");
   EXPECT_EQ(found(table, 4), "none");
   ASSERT_EQ(table.buses().size(), 3U);
   EXPECT_EQ(table.buses()[2]->name(), "other");
}

TEST(BusTable, ABusThatAsksForNothingIsForAllRequests) {
   const BusTable table({bus("any", 3)});
   EXPECT_EQ(found(table, 3, 0x100, 5), "any");
}

TEST(BusTable, ABusThatAsksForAPciFunctionIsForNoOthers) {
   const BusTable table({bus("mine", 3, 0x100)});
   EXPECT_EQ(found(table, 3, 0x100), "mine");
   EXPECT_EQ(found(table, 3, 0x100, 7), "mine");
   EXPECT_EQ(found(table, 3, 0x101), "none");
   EXPECT_EQ(found(table, 3), "none");
}

TEST(BusTable, ABusThatAsksForAControllerIsForNoOthers) {
   const BusTable table({bus("mine", 3, std::nullopt, std::uint16_t{0})});
   EXPECT_EQ(found(table, 3, 0, 0), "mine");
   EXPECT_EQ(found(table, 3, 0x100, 0), "mine");
   EXPECT_EQ(found(table, 3, 0, 1), "none");
}

TEST(BusTable, OfSeveralThatFitTheOneThatAsksForMoreWins) {
   const auto any = bus("any", 3);
   const auto controller = bus("controller", 3, std::nullopt, std::uint16_t{5});
   const auto pci = bus("pci", 3, 0x100);
   const auto both = bus("both", 3, 0x100, std::uint16_t{5});
   for (const BusTable& table :
        {BusTable({any, controller, pci, both}), BusTable({both, pci, controller, any}),
         BusTable({pci, any, both, controller})}) {
      EXPECT_EQ(found(table, 3, 0x100, 5), "both");
      EXPECT_EQ(found(table, 3, 0x100, 6), "pci");
      EXPECT_EQ(found(table, 3, 0x200, 5), "controller");
      EXPECT_EQ(found(table, 3, 0x200, 6), "any");
   }
}

TEST(BusTable, OfEqualOnesTheFirstWins) {
   const BusTable table({bus("one", 3, 0x100), bus("two", 3, 0x100)});
   EXPECT_EQ(found(table, 3, 0x100), "one");
}

TEST(BusTable, RefusesANumberThatNoRequestCanGive) {
   EXPECT_THROW(BusTable({bus("beyond", 128)}), std::out_of_range);
}

} // namespace
} // namespace Nimbo
