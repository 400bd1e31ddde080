#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

namespace TablesTest {

/// A forked process that runs a function, with expectations in it, and can be talked with. Killed
/// at the end of the scope if it is still there.
class ChildProcess {
public:
   explicit ChildProcess(const std::function<void(ChildProcess&)>& body) {
      if (::pipe(_toChild) != 0 || ::pipe(_toParent) != 0) {
         throw std::runtime_error("pipe");
      }
      std::fflush(nullptr);
      _pid = ::fork();
      if (_pid < 0) {
         throw std::runtime_error("fork");
      }
      if (_pid == 0) {
         ::close(_toChild[1]);
         ::close(_toParent[0]);
         _isChild = true;
         int verdict = 1;
         try {
            body(*this);
            verdict = testing::Test::HasFailure() ? 1 : 0;
         } catch (const std::exception& error) {
            std::fprintf(stderr, "in the child process: %s\n", error.what());
         }
         std::fflush(nullptr);
         ::_exit(verdict);
      }
      ::close(_toChild[0]);
      ::close(_toParent[1]);
   }
   explicit ChildProcess(const std::function<void()>& body)
      : ChildProcess([&](ChildProcess&) { body(); }) {}

   ~ChildProcess() {
      if (_pid > 0) {
         ::kill(_pid, SIGKILL);
         ::waitpid(_pid, nullptr, 0);
      }
      ::close(_toChild[1]);
      ::close(_toParent[0]);
   }
   ChildProcess(const ChildProcess&) = delete;
   ChildProcess& operator=(const ChildProcess&) = delete;

   pid_t pid() const { return _pid; }

   /// Lets the other side's hear() return.
   void say(char what = '.') {
      [[maybe_unused]] const ssize_t size =
         ::write(_isChild ? _toParent[1] : _toChild[1], &what, 1);
   }
   /// Waits for the other side's say(); 0 when it is gone.
   char hear() {
      char what = 0;
      return ::read(_isChild ? _toChild[0] : _toParent[0], &what, 1) == 1 ? what : '\0';
   }

   void signalIs(int signal) { ::kill(_pid, signal); }

   /// Stops the process, and returns when it has stopped.
   void stop() {
      ::kill(_pid, SIGSTOP);
      int status = 0;
      ::waitpid(_pid, &status, WUNTRACED);
   }

   void kill() {
      ::kill(_pid, SIGKILL);
      ::waitpid(_pid, nullptr, 0);
      _pid = 0;
   }

   /// Whether it ended by itself, with all its expectations met.
   bool succeeds() {
      int status = 0;
      ::waitpid(_pid, &status, 0);
      _pid = 0;
      return WIFEXITED(status) && WEXITSTATUS(status) == 0;
   }

private:
   int _toChild[2];
   int _toParent[2];
   pid_t _pid = 0;
   bool _isChild = false;
};

} // namespace TablesTest
