// Registers read in their order.

#include "tools/tarnreg/ReadAhead.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/unit/tools/Board.h"

namespace TarnReg {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ReadAhead, OfADeviceThatWaitsEachIsReadWhenItIsAskedFor) {
   TestSupport::Board board("0,A,id,true,8\n1,B,id,true,8\n2,C,id,true,8\n");
   board.state->values = {{"A", 1}, {"B", 2}};
   ReadAhead values(*board.device, board.device->registers());
   EXPECT_THAT(board.journal(), IsEmpty());
   EXPECT_EQ(values.next(), 1U);
   EXPECT_THAT(board.journal(), ElementsAre("read A"));
   EXPECT_EQ(values.next(), 2U);
   EXPECT_THAT(board.journal(), ElementsAre("read A", "read B")) << "C may never be wanted";
}

TEST(ReadAhead, AFailureIsOfItsRegisterAlone) {
   TestSupport::Board board("0,A,id,true,8\n1,B,id,true,8\n2,C,id,true,8\n");
   board.state->values = {{"A", 1}, {"C", 3}};
   board.state->readFaults["B"] = [] { throw std::runtime_error("gone"); };
   ReadAhead values(*board.device, board.device->registers());
   EXPECT_EQ(values.next(), 1U);
   EXPECT_THROW(values.next(), AccessError);
   EXPECT_EQ(values.next(), 3U);
}

} // namespace
} // namespace TarnReg
