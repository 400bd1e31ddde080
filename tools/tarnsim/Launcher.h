#pragma once

#include <csignal>
#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include "TarnRegFile/Utils.h"

namespace TarnSim {

/// Starts the command: in a process that sees the board's files, with its ioctls on device nodes
/// trapped, and that waits until all is ready for it.
///
/// To be used while this process has one thread.
class Launcher {
public:
   /// `mask` is the signal mask that the command gets; `files` the paths of the board's files,
   /// and `environment` what is set for the command.
   Launcher(std::vector<std::string> command, std::vector<std::string> files,
            std::vector<std::pair<std::string, std::string>> environment, const sigset_t& mask);

   /// Makes the process. Throws Failure, with what the kernel forbids; there is then none.
   void start();

   pid_t process() const noexcept { return _process; }

   /// Where the ioctls that wait for an answer come out; to be taken once.
   TarnRegFile::Utils::UnixFdRes listener() { return std::move(_listener); }

   /// The board's files, opened, in the order of their paths; to be taken once.
   std::vector<TarnRegFile::Utils::UnixFdRes> files() { return std::move(_opened); }

   /// Lets the command run.
   void go();

private:
   [[noreturn]] void _child(int channel, pid_t parent) const noexcept;
   void _prepare(std::vector<int>& descriptors) const;
   [[noreturn]] void _execute() const;

   const std::vector<std::string> _command;
   const std::vector<std::string> _paths;
   const std::vector<std::pair<std::string, std::string>> _environment;
   const sigset_t _mask;
   pid_t _process = -1;
   TarnRegFile::Utils::UnixFdRes _channel{-1};
   TarnRegFile::Utils::UnixFdRes _listener{-1};
   TarnRegFile::Utils::UnixFdRes _filler{-1};
   std::vector<TarnRegFile::Utils::UnixFdRes> _opened;
};

} // namespace TarnSim
