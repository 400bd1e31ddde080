#include "nimbo/ListeningSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "nimbo/UnixAddress.h"
#include "tests/support/Failure.h"
#include "tests/support/TempDir.h"
#include "tests/unit/nimbo/ChildProcess.h"

namespace Nimbo {
namespace {

using TarnRegFile::Utils::UnixFdRes;
using testing::HasSubstr;

/// The errno of a client that connects to `path`, or 0.
int connectTo(const std::string& path) {
   const UnixFdRes client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   const UnixAddress address(path);
   return ::connect(client.fd(), address.get(), address.size()) == 0 ? 0 : errno;
}

/// A socket of the test's own at `path`, listening unless told otherwise.
UnixFdRes socketAt(const std::string& path, int type = SOCK_STREAM, bool listens = true) {
   UnixFdRes socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
   const UnixAddress address(path);
   EXPECT_EQ(::bind(socket.fd(), address.get(), address.size()), 0);
   if (listens) {
      EXPECT_EQ(::listen(socket.fd(), 1), 0);
   }
   return socket;
}

struct stat statusOf(const std::string& path) {
   struct stat status {};
   EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
   return status;
}

mode_t permissions(const std::string& path) {
   return statusOf(path).st_mode & 07777;
}

class ListeningSocketTest : public testing::Test {
protected:
   std::string failure() {
      try {
         const ListeningSocket socket(place);
      } catch (const std::runtime_error& error) {
         std::string text = error.what();
         for (std::size_t at = 0; (at = text.find(dir.path())) != std::string::npos;) {
            text.replace(at, dir.path().size(), "DIR");
         }
         return text;
      }
      return "none";
   }

   const TestSupport::TempDir dir;
   ListeningSocket::Place place{.directory = dir.path(), .file = "smbus"};
   const std::string path = dir.path("smbus");
};

TEST_F(ListeningSocketTest, TakesConnectionsAtItsPath) {
   const ListeningSocket socket(place);
   EXPECT_EQ(socket.path(), path);
   EXPECT_FALSE(socket.isActivated());
   EXPECT_EQ(connectTo(path), 0);
   const UnixFdRes accepted(::accept(socket.fd(), nullptr, nullptr));
   EXPECT_GE(accepted.fd(), 0);
}

TEST_F(ListeningSocketTest, ItsDescriptorIsNonBlockingAndClosedOnExec) {
   const ListeningSocket socket(place);
   EXPECT_NE(::fcntl(socket.fd(), F_GETFL) & O_NONBLOCK, 0);
   EXPECT_NE(::fcntl(socket.fd(), F_GETFD) & FD_CLOEXEC, 0);
   EXPECT_EQ(::accept(socket.fd(), nullptr, nullptr), -1);
   EXPECT_EQ(errno, EAGAIN);
}

TEST_F(ListeningSocketTest, HasTheModeWhateverTheUmask) {
   for (const mode_t umask : {0, 0022, 0777}) {
      const mode_t before = ::umask(umask);
      for (const mode_t mode : {0600, 0660, 0666}) {
         place.mode = mode;
         const ListeningSocket socket(place);
         EXPECT_EQ(permissions(path), mode);
      }
      ::umask(before);
   }
}

TEST_F(ListeningSocketTest, BelongsToWhomItIsGiven) {
   if (::geteuid() != 0) {
      GTEST_SKIP() << "only root gives files away";
   }
   place.owner = 1234;
   place.group = 5678;
   place.mode = 0620;
   const ListeningSocket socket(place);
   EXPECT_EQ(statusOf(path).st_uid, 1234u);
   EXPECT_EQ(statusOf(path).st_gid, 5678u);
   EXPECT_EQ(permissions(path), 0620u);
}

TEST_F(ListeningSocketTest, IsTheProcesssOwnOtherwise) {
   const ListeningSocket socket(place);
   EXPECT_EQ(statusOf(path).st_uid, ::geteuid());
   EXPECT_EQ(statusOf(path).st_gid, ::getegid());
}

TEST_F(ListeningSocketTest, WhatCannotBeGivenAwayIsAnErrorAndLeavesNothing) {
   if (::geteuid() != 0) {
      GTEST_SKIP() << "the child gives its rights up";
   }
   ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
   ChildProcess child([&](const ChildProcess::Tell&) {
      ASSERT_EQ(::setgid(1000), 0);
      ASSERT_EQ(::setuid(1000), 0);
      place.owner = 0;
      EXPECT_EQ(failure(),
                "DIR/smbus: cannot be given to its owner and group: Operation not permitted");
   });
   EXPECT_EQ(child.wait(), 0);
   EXPECT_FALSE(dir.has("smbus"));
   EXPECT_FALSE(dir.has("smbus.new"));
}

TEST_F(ListeningSocketTest, LeavesOnlyItsLockFileBehind) {
   { const ListeningSocket socket(place); }
   EXPECT_FALSE(dir.has("smbus"));
   EXPECT_FALSE(dir.has("smbus.new"));
   EXPECT_TRUE(dir.has("smbus.lock"));
   const ListeningSocket again(place);
   EXPECT_EQ(connectTo(path), 0);
}

TEST_F(ListeningSocketTest, TheLockFileIsItsUsersOnly) {
   const ListeningSocket socket(place);
   EXPECT_EQ(permissions(dir.path("smbus.lock")), 0600u);
   EXPECT_EQ(dir.read("smbus.lock"), std::to_string(::getpid()) + "\n");
}

TEST_F(ListeningSocketTest, MakesItsDirectoryWithAllAboveIt) {
   const mode_t before = ::umask(0077);
   place.directory = dir.path("a/b/c");
   const ListeningSocket socket(place);
   ::umask(before);
   EXPECT_EQ(connectTo(dir.path("a/b/c/smbus")), 0);
   EXPECT_EQ(permissions(dir.path("a")), 0755u);
   EXPECT_EQ(permissions(dir.path("a/b/c")), 0755u);
}

TEST_F(ListeningSocketTest, LeavesADirectoryThatIsThereAsItIs) {
   ASSERT_EQ(::chmod(dir.path().c_str(), 0701), 0);
   const ListeningSocket socket(place);
   EXPECT_EQ(permissions(dir.path()), 0701u);
}

TEST_F(ListeningSocketTest, ADirectoryThatIsNoneIsAnError) {
   place.directory = dir.write("file", "");
   EXPECT_EQ(failure(), "DIR/file: Not a directory");
   place.directory = dir.path("file/deeper");
   EXPECT_EQ(failure(), "DIR/file/deeper: Not a directory");
   place.directory = "/proc/nonexistent";
   EXPECT_EQ(failure(), "/proc/nonexistent: No such file or directory");
}

TEST_F(ListeningSocketTest, ASymbolicLinkToTheDirectoryWillDo) {
   std::filesystem::create_directory_symlink(dir.path(), dir.path("link"));
   place.directory = dir.path("link");
   const ListeningSocket socket(place);
   EXPECT_EQ(connectTo(path), 0);
}

TEST_F(ListeningSocketTest, TakesThePlaceOfADeadSocket) {
   { const UnixFdRes dead = socketAt(path); }
   ASSERT_EQ(connectTo(path), ECONNREFUSED);
   const ListeningSocket socket(place);
   EXPECT_EQ(connectTo(path), 0);
   EXPECT_EQ(permissions(path), 0660u);
   EXPECT_FALSE(dir.has("smbus.new"));
}

TEST_F(ListeningSocketTest, TakesThePlaceOfAKilledDaemon) {
   ChildProcess daemon([&](const ChildProcess::Tell& tell) {
      const ListeningSocket socket(place);
      tell("up");
      ::pause();
   });
   ASSERT_EQ(daemon.word(), "up");
   EXPECT_EQ(connectTo(path), 0);
   daemon.kill();
   EXPECT_EQ(connectTo(path), ECONNREFUSED) << "it had no chance to clean up";
   const ListeningSocket socket(place);
   EXPECT_EQ(connectTo(path), 0);
}

TEST_F(ListeningSocketTest, TakesAwayWhatADaemonLeftThatWasKilledWhileItBegan) {
   { const UnixFdRes dead = socketAt(dir.path("smbus.new")); }
   const ListeningSocket socket(place);
   EXPECT_EQ(connectTo(path), 0);
   EXPECT_FALSE(dir.has("smbus.new"));
}

TEST_F(ListeningSocketTest, LeavesALivingDaemonAlone) {
   ChildProcess daemon([&](const ChildProcess::Tell& tell) {
      const ListeningSocket socket(place);
      tell("up");
      ::pause();
   });
   ASSERT_EQ(daemon.word(), "up");
   const ino_t inode = statusOf(path).st_ino;
   EXPECT_EQ(failure(), "DIR/smbus: is another daemon's (process " + std::to_string(daemon.pid()) +
                           "), which has DIR/smbus.lock locked");
   EXPECT_EQ(statusOf(path).st_ino, inode);
   EXPECT_EQ(connectTo(path), 0);
}

TEST_F(ListeningSocketTest, LeavesAnyLivingSocketAlone) {
   const UnixFdRes other = socketAt(path);
   const ino_t inode = statusOf(path).st_ino;
   EXPECT_EQ(failure(), "DIR/smbus: somebody accepts connections there (process " +
                           std::to_string(::getpid()) + ")");
   EXPECT_EQ(statusOf(path).st_ino, inode);
   EXPECT_EQ(connectTo(path), 0) << "it still works";
}

TEST_F(ListeningSocketTest, LeavesALivingSocketAloneThatIsTooBusyToAccept) {
   const UnixFdRes other(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   const UnixAddress address(path);
   ASSERT_EQ(::bind(other.fd(), address.get(), address.size()), 0);
   ASSERT_EQ(::listen(other.fd(), 0), 0);
   // The queue is full now.
   const UnixFdRes waiting(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   ASSERT_EQ(::connect(waiting.fd(), address.get(), address.size()), 0);
   EXPECT_EQ(failure(), "DIR/smbus: somebody accepts connections there");
   EXPECT_TRUE(dir.has("smbus"));
}

TEST_F(ListeningSocketTest, LeavesSocketsOfOtherKindsAlone) {
   const UnixFdRes other = socketAt(path, SOCK_DGRAM, false);
   EXPECT_EQ(failure(), "DIR/smbus: is a socket of another kind");
   EXPECT_TRUE(dir.has("smbus"));
}

TEST_F(ListeningSocketTest, LeavesWhatIsNoSocketAlone) {
   dir.write("smbus", "precious");
   EXPECT_EQ(failure(), "DIR/smbus: is there already, and is no socket");
   EXPECT_EQ(dir.read("smbus"), "precious");
   std::filesystem::remove(path);
   std::filesystem::create_directory(path);
   EXPECT_EQ(failure(), "DIR/smbus: is there already, and is no socket");
   EXPECT_TRUE(dir.has("smbus"));
   std::filesystem::remove(path);
   ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
   EXPECT_EQ(failure(), "DIR/smbus: is there already, and is no socket");
   EXPECT_TRUE(dir.has("smbus"));
}

TEST_F(ListeningSocketTest, LeavesASymbolicLinkAlone) {
   { const UnixFdRes dead = socketAt(dir.path("elsewhere")); }
   std::filesystem::create_symlink("elsewhere", path);
   EXPECT_EQ(failure(), "DIR/smbus: is there already, and is no socket");
   EXPECT_TRUE(std::filesystem::is_symlink(path));
   EXPECT_TRUE(dir.has("elsewhere"));
   std::filesystem::remove(path);
   std::filesystem::create_symlink("nowhere", path);
   EXPECT_EQ(failure(), "DIR/smbus: is there already, and is no socket");
   EXPECT_FALSE(dir.has("nowhere"));
}

TEST_F(ListeningSocketTest, LeavesWhatIsNoSocketAloneAlsoWhereItIsMade) {
   dir.write("smbus.new", "precious");
   EXPECT_EQ(failure(), "DIR/smbus.new: is there already, and is no socket");
   EXPECT_EQ(dir.read("smbus.new"), "precious");
   EXPECT_FALSE(dir.has("smbus"));
}

TEST_F(ListeningSocketTest, ALockFileThatIsNoneIsAnError) {
   dir.write("target", "precious");
   std::filesystem::create_symlink("target", dir.path("smbus.lock"));
   EXPECT_EQ(failure(), "DIR/smbus.lock: Too many levels of symbolic links");
   EXPECT_EQ(dir.read("target"), "precious");
   std::filesystem::remove(dir.path("smbus.lock"));
   ASSERT_EQ(::mkfifo(dir.path("smbus.lock").c_str(), 0600), 0);
   EXPECT_EQ(failure(), "DIR/smbus.lock: is no ordinary file");
}

TEST_F(ListeningSocketTest, ALockWithoutANameInItStillCounts) {
   const UnixFdRes lock(::open(dir.path("smbus.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
   ASSERT_EQ(::flock(lock.fd(), LOCK_EX), 0);
   EXPECT_EQ(failure(), "DIR/smbus: is another daemon's, which has DIR/smbus.lock locked");
   EXPECT_FALSE(dir.has("smbus"));
}

TEST_F(ListeningSocketTest, AFailedOneGivesItsLockBack) {
   dir.write("smbus", "");
   EXPECT_NE(failure(), "none");
   std::filesystem::remove(path);
   EXPECT_EQ(failure(), "none");
}

TEST_F(ListeningSocketTest, OfDaemonsThatStartAtOnceOneGetsThePlace) {
   for (int round = 0; round < 10; ++round) {
      if (round % 2 == 1) {
         const UnixFdRes dead = socketAt(path);
      }
      int gate[2] = {-1, -1};
      ASSERT_EQ(::pipe(gate), 0);
      std::vector<std::unique_ptr<ChildProcess>> daemons;
      for (int i = 0; i < 6; ++i) {
         daemons.push_back(std::make_unique<ChildProcess>([&](const ChildProcess::Tell& tell) {
            ::close(gate[1]);
            char none = 0;
            EXPECT_EQ(::read(gate[0], &none, 1), 0);
            try {
               const ListeningSocket socket(place);
               tell("up");
               ::pause();
            } catch (const std::runtime_error& error) {
               EXPECT_THAT(error.what(), HasSubstr("is another daemon's"));
               tell("refused");
            }
         }));
      }
      ::close(gate[0]);
      ::close(gate[1]);
      int up = 0;
      for (const auto& daemon : daemons) {
         const std::string word = daemon->word();
         EXPECT_TRUE(word == "up" || word == "refused") << word;
         up += word == "up" ? 1 : 0;
         if (word == "refused") {
            EXPECT_EQ(daemon->wait(), 0);
         }
      }
      EXPECT_EQ(up, 1);
      EXPECT_EQ(connectTo(path), 0);
      daemons.clear();
      std::filesystem::remove(path);
   }
}

TEST_F(ListeningSocketTest, ClientsFindNoGapWhenADeadSocketIsReplaced) {
   { const UnixFdRes dead = socketAt(path); }
   int gate[2] = {-1, -1};
   ASSERT_EQ(::pipe(gate), 0);
   ChildProcess client([&](const ChildProcess::Tell& tell) {
      ::close(gate[1]);
      tell("looking");
      int error = 0;
      while ((error = connectTo(path)) == ECONNREFUSED) {
      }
      EXPECT_EQ(error, 0) << "neither missing nor forbidden on the way";
   });
   ASSERT_EQ(client.word(), "looking");
   const ListeningSocket socket(place);
   EXPECT_EQ(client.wait(), 0);
   ::close(gate[0]);
   ::close(gate[1]);
}

TEST_F(ListeningSocketTest, DoesNotTakeAwayWhatIsNotItsOwnAnyMore) {
   {
      const ListeningSocket socket(place);
      std::filesystem::remove(path);
      dir.write("smbus", "somebody else's");
   }
   EXPECT_EQ(dir.read("smbus"), "somebody else's");
   std::filesystem::remove(path);
   UnixFdRes other(-1);
   {
      const ListeningSocket socket(place);
      // Kept, so that the number of its file is not given to the other.
      std::filesystem::rename(path, dir.path("kept"));
      other = socketAt(path);
   }
   EXPECT_EQ(connectTo(path), 0);
}

TEST_F(ListeningSocketTest, ItsDirectoryMayHaveGoneInTheEnd) {
   place.directory = dir.path("d");
   {
      const ListeningSocket socket(place);
      std::filesystem::remove_all(dir.path("d"));
   }
   EXPECT_FALSE(dir.has("d"));
}

TEST_F(ListeningSocketTest, APathThatIsTooLongForAnAddressWillDo) {
   place.directory = dir.path(std::string(120, 'd'));
   {
      const ListeningSocket socket(place);
      const UnixFdRes directory(::open(place.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
      EXPECT_EQ(connectTo("/proc/self/fd/" + std::to_string(directory.fd()) + "/smbus"), 0);
      EXPECT_NE(failure(), "none") << "and the place is taken";
   }
   EXPECT_FALSE(std::filesystem::exists(place.directory + "/smbus"));
}

/// Runs `body` in a child that has `sockets` passed as systemd does.
int withSockets(const std::vector<int>& sockets, const std::function<void()>& body) {
   ChildProcess child([&](const ChildProcess::Tell&) {
      // Out of the way first: what goes to 3 must not close what is still to be passed.
      constexpr int away = 200;
      std::vector<int> moved;
      for (const int socket : sockets) {
         moved.push_back(::fcntl(socket, F_DUPFD, away));
      }
      for (std::size_t i = 0; i < moved.size(); ++i) {
         ASSERT_EQ(::dup2(moved[i], static_cast<int>(3 + i)), static_cast<int>(3 + i));
      }
      ::setenv("LISTEN_FDS", std::to_string(sockets.size()).c_str(), 1);
      ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
      body();
   });
   return child.wait();
}

std::string activationFailure() {
   try {
      (void)ListeningSocket::activated();
   } catch (const std::runtime_error& error) {
      return error.what();
   }
   return "none";
}

TEST_F(ListeningSocketTest, IsNotActivatedIfNothingWasPassed) {
   EXPECT_EQ(ListeningSocket::activated(), nullptr);
}

TEST_F(ListeningSocketTest, TakesTheSocketThatSystemdPassed) {
   const UnixFdRes passed = socketAt(path);
   const int code = withSockets({passed.fd()}, [&] {
      {
         const std::unique_ptr<ListeningSocket> socket = ListeningSocket::activated();
         ASSERT_TRUE(socket);
         EXPECT_EQ(socket->fd(), 3);
         EXPECT_EQ(socket->path(), path);
         EXPECT_TRUE(socket->isActivated());
         EXPECT_NE(::fcntl(3, F_GETFL) & O_NONBLOCK, 0);
         EXPECT_NE(::fcntl(3, F_GETFD) & FD_CLOEXEC, 0);
         EXPECT_EQ(connectTo(path), 0);
         const UnixFdRes accepted(::accept(socket->fd(), nullptr, nullptr));
         EXPECT_GE(accepted.fd(), 0);
         EXPECT_EQ(::getenv("LISTEN_FDS"), nullptr) << "not for children of ours";
      }
      EXPECT_TRUE(dir.has("smbus")) << "nothing of systemd's is taken away";
      EXPECT_FALSE(dir.has("smbus.lock"));
   });
   EXPECT_EQ(code, 0);
}

TEST_F(ListeningSocketTest, WhatWasPassedToAnotherProcessIsNotMeant) {
   const UnixFdRes passed = socketAt(path);
   EXPECT_EQ(withSockets({passed.fd()},
                         [] {
                            ::setenv("LISTEN_PID", "1", 1);
                            EXPECT_EQ(ListeningSocket::activated(), nullptr);
                         }),
             0);
}

TEST_F(ListeningSocketTest, AnythingButOneListeningStreamSocketIsRefused) {
   const std::string other = "what systemd passed is no listening Unix stream socket";
   const UnixFdRes good = socketAt(path);
   const UnixFdRes second = socketAt(dir.path("second"));
   EXPECT_EQ(withSockets({good.fd(), second.fd()},
                         [] {
                            EXPECT_EQ(activationFailure(),
                                      "systemd passed 2 sockets: one is expected");
                         }),
             0);
   const UnixFdRes datagrams = socketAt(dir.path("dgram"), SOCK_DGRAM, false);
   const UnixFdRes deaf = socketAt(dir.path("deaf"), SOCK_STREAM, false);
   const UnixFdRes tcp(::socket(AF_INET, SOCK_STREAM, 0));
   ASSERT_EQ(::listen(tcp.fd(), 1), 0);
   const UnixFdRes file(::open(dir.write("file", "").c_str(), O_RDONLY));
   for (const int fd : {datagrams.fd(), deaf.fd(), tcp.fd(), file.fd()}) {
      EXPECT_EQ(withSockets({fd}, [&] { EXPECT_EQ(activationFailure(), other); }), 0);
   }
}

TEST_F(ListeningSocketTest, NonsenseInTheEnvironmentIsAnError) {
   EXPECT_EQ(withSockets({},
                         [] {
                            ::setenv("LISTEN_FDS", "many", 1);
                            EXPECT_THAT(activationFailure(),
                                        HasSubstr("the socket that systemd passed: "));
                         }),
             0);
}

} // namespace
} // namespace Nimbo
