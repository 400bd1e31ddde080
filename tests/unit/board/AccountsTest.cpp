#include "board/Accounts.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/support/Failure.h"

namespace Board {
namespace {

using TestSupport::Failure;

TEST(Accounts, ANameIsLookedUp) {
   EXPECT_EQ(userFrom("root"), 0u);
   EXPECT_EQ(groupFrom("root"), 0u);
}

TEST(Accounts, ANumberIsItselfWhetherOrNotSomebodyHasIt) {
   EXPECT_EQ(userFrom("4294967294"), 4294967294u);
   EXPECT_EQ(groupFrom("123456789"), 123456789u);
   EXPECT_EQ(userFrom("0"), 0u);
}

TEST(Accounts, WhatNobodyHasIsRefusedByText) {
   EXPECT_EQ(Failure([] { userFrom("no such user"); }),
             Failure::invalidArgument("there is no user 'no such user'"));
   EXPECT_EQ(Failure([] { groupFrom("no such group"); }),
             Failure::invalidArgument("there is no group 'no such group'"));
   EXPECT_EQ(Failure([] { userFrom(""); }), Failure::invalidArgument("there is no user ''"));
   EXPECT_EQ(Failure([] { userFrom("-1"); }), Failure::invalidArgument("there is no user '-1'"));
}

TEST(Accounts, TheNumberThatLeavesThingsAsTheyAreIsNobodys) {
   EXPECT_THROW(userFrom("4294967295"), std::invalid_argument);
   EXPECT_THROW(groupFrom("4294967296"), std::invalid_argument);
}

} // namespace
} // namespace Board
