#include "nimbo/Peer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include <gtest/gtest.h>

#include "platform/entity/Errors.h"
#include "TarnRegFile/Utils.h"

namespace Nimbo {
namespace {

using TarnRegFile::Utils::UnixFdRes;

int errorOf(int socket) {
   try {
      (void)Peer::of(socket);
   } catch (const Platform::ErrnoException& error) {
      return error.code().value();
   }
   return 0;
}

TEST(Peer, OfAConnectedSocketIsWhoConnected) {
   std::array<int, 2> ends{};
   ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
   const UnixFdRes one(ends[0]);
   const UnixFdRes other(ends[1]);
   const Peer peer = Peer::of(one.fd());
   EXPECT_EQ(peer.pid, ::getpid());
   EXPECT_EQ(peer.uid, ::geteuid());
   EXPECT_EQ(peer.gid, ::getegid());
   std::vector<gid_t> groups(static_cast<std::size_t>(::getgroups(0, nullptr)));
   ::getgroups(static_cast<int>(groups.size()), groups.data());
   EXPECT_EQ(peer.groups, groups);
}

TEST(Peer, HasATextForLogs) {
   EXPECT_EQ((Peer{.pid = 42, .uid = 1000, .gid = 100, .groups = {7}}).text(),
             "uid 1000 gid 100 pid 42");
}

TEST(Peer, WhatIsNoConnectedUnixSocketHasNone) {
   const UnixFdRes file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
   EXPECT_EQ(errorOf(file.fd()), ENOTSOCK);
   EXPECT_EQ(errorOf(-1), EBADF);
   const UnixFdRes alone(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   EXPECT_EQ(errorOf(alone.fd()), ENOTCONN);
}

} // namespace
} // namespace Nimbo
