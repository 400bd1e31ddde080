#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "TarnRegFile/Utils.h"

namespace Nimbo {

/// A process that runs a function of the test: it says words to the test through tell(), and ends
/// when the function does, with exit code 0 if none of its expectations failed. Killed, if it still
/// runs, at the end of the scope.
class ChildProcess {
public:
   using Tell = std::function<void(const std::string& word)>;

   explicit ChildProcess(const std::function<void(const Tell& tell)>& body) {
      int ends[2] = {-1, -1};
      if (::pipe(ends) != 0) {
         ADD_FAILURE() << "no pipe";
         return;
      }
      _words = TarnRegFile::Utils::UnixFdRes(ends[0]);
      TarnRegFile::Utils::UnixFdRes mine(ends[1]);
      _pid = ::fork();
      if (_pid != 0) {
         return;
      }
      int code = 1;
      try {
         body([&](const std::string& word) {
            const std::string line = word + "\n";
            EXPECT_EQ(::write(mine.fd(), line.data(), line.size()),
                      static_cast<ssize_t>(line.size()));
         });
         code = testing::Test::HasFailure() ? 1 : 0;
      } catch (const std::exception& error) {
         std::fprintf(stderr, "child: %s\n", error.what());
      }
      std::fflush(nullptr);
      ::_exit(code);
   }

   ~ChildProcess() { kill(); }
   ChildProcess(const ChildProcess&) = delete;
   ChildProcess& operator=(const ChildProcess&) = delete;

   pid_t pid() const { return _pid; }

   /// The next word that it says; empty when it has ended without one.
   std::string word() {
      std::string word;
      for (char c = 0; ::read(_words.fd(), &c, 1) == 1 && c != '\n';) {
         word += c;
      }
      return word;
   }

   /// As kill -9, and waits until it is gone.
   void kill() {
      if (_pid > 0) {
         ::kill(_pid, SIGKILL);
         wait();
      }
   }

   /// Waits for its end; returns the exit code, or 128 and the signal.
   int wait() {
      int status = 0;
      while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
      }
      _pid = -1;
      return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
   }

private:
   TarnRegFile::Utils::UnixFdRes _words{-1};
   pid_t _pid = -1;
};

} // namespace Nimbo
