#pragma once

#include <sys/ptrace.h>

#include "tests/torture/Torture.h"

namespace Torture {

/// A process that is driven instruction by instruction. It runs `before` freely, then stops, then
/// runs `work` one step at a time.
class Tracee {
public:
   Tracee(const std::function<void()>& before, const std::function<void()>& work) {
      _pid = child([&] {
         check(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0, "cannot be traced");
         before();
         ::raise(SIGSTOP);
         work();
         ::raise(SIGSTOP);
      });
      check(stopSignal() == SIGSTOP, "the traced process did not begin");
   }
   ~Tracee() { kill(); }
   Tracee(const Tracee&) = delete;
   Tracee& operator=(const Tracee&) = delete;

   /// One instruction. False: the work is done.
   bool step() {
      check(::ptrace(PTRACE_SINGLESTEP, _pid, nullptr, nullptr) == 0, "singlestep");
      return stopSignal() == SIGTRAP;
   }

   /// On to where the next system call begins, or the one under way ends. False: the work is done.
   bool call() {
      check(::ptrace(PTRACE_SYSCALL, _pid, nullptr, nullptr) == 0, "syscall");
      return stopSignal() == SIGTRAP;
   }

   /// SIGKILL, and the end of the process.
   void kill() {
      if (_pid > 0) {
         ::kill(_pid, SIGKILL);
         ended(_pid);
         _pid = -1;
      }
   }

private:
   int stopSignal() {
      int status = 0;
      check(::waitpid(_pid, &status, 0) == _pid, "waitpid");
      if (!WIFSTOPPED(status)) {
         _pid = -1;
         fail("the traced process ended by itself");
      }
      return WSTOPSIG(status);
   }

   pid_t _pid = -1;
};

} // namespace Torture
