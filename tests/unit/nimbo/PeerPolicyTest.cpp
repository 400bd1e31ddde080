#include "nimbo/PeerPolicy.h"

#include <gtest/gtest.h>

namespace Nimbo {
namespace {

const Peer peer{.pid = 42, .uid = 1000, .gid = 100, .groups = {7, 8}};

TEST(PeerPolicy, WithoutListsEverybodyIsAllowed) {
   EXPECT_TRUE(PeerPolicy().allows(peer));
   EXPECT_TRUE(PeerPolicy({}, {}).allows(peer));
}

TEST(PeerPolicy, AUserOfTheListIsAllowed) {
   EXPECT_TRUE(PeerPolicy({1, 1000}, {}).allows(peer));
   EXPECT_FALSE(PeerPolicy({1, 1001}, {}).allows(peer));
}

TEST(PeerPolicy, AMemberOfAGroupOfTheListIsAllowed) {
   EXPECT_TRUE(PeerPolicy({}, {1, 100}).allows(peer)) << "by its own group";
   EXPECT_TRUE(PeerPolicy({}, {1, 8}).allows(peer)) << "by a supplementary one";
   EXPECT_FALSE(PeerPolicy({}, {1, 9}).allows(peer));
}

TEST(PeerPolicy, OneOfTheTwoListsIsEnough) {
   EXPECT_TRUE(PeerPolicy({1000}, {9}).allows(peer));
   EXPECT_TRUE(PeerPolicy({9}, {100}).allows(peer));
   EXPECT_FALSE(PeerPolicy({9}, {9}).allows(peer));
}

TEST(PeerPolicy, UsersAreNotMixedUpWithGroups) {
   EXPECT_FALSE(PeerPolicy({100}, {1000}).allows(peer));
}

TEST(PeerPolicy, RootHasToBeListedToo) {
   EXPECT_FALSE(PeerPolicy({1000}, {}).allows(Peer{.pid = 1}));
   EXPECT_TRUE(PeerPolicy({0}, {}).allows(Peer{.pid = 1}));
}

} // namespace
} // namespace Nimbo
