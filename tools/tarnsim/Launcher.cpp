#include "tools/tarnsim/Launcher.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <fmt/format.h>

#include "tools/tarnsim/FileTree.h"
#include "tools/tarnsim/Filter.h"
#include "tools/tarnsim/Pidfd.h"
#include "tools/tarnsim/SystemError.h"

namespace TarnSim {

using TarnRegFile::Utils::UnixFdRes;

namespace {

// What the new process tells: one byte, then descriptors of its own, or the reason it failed.
constexpr char ready = '+';
constexpr char failed = '-';
constexpr std::size_t maxMessage = 128 << 10;

pid_t forkProcess() {
#ifdef __SANITIZE_THREAD__
   // Behind a fork() the thread sanitizer starts a thread of its own, and a process with two
   // threads may not enter a user namespace. A fork that it does not see keeps the child at one.
   return static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
#else
   return ::fork();
#endif
}

} // namespace

Launcher::Launcher(std::vector<std::string> command, std::vector<std::string> files,
                   std::vector<std::pair<std::string, std::string>> environment,
                   const sigset_t& mask)
   : _command(std::move(command)), _paths(std::move(files)), _environment(std::move(environment)),
     _mask(mask) {}

void Launcher::start() {
   int ends[2] = {-1, -1};
   if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      failErrno("socketpair");
   }
   _channel = UnixFdRes(ends[0]);
   UnixFdRes childEnd(ends[1]);
   const pid_t parent = ::getpid();
   _process = forkProcess();
   if (_process < 0) {
      failErrno("cannot start a process");
   }
   if (_process == 0) {
      _channel = UnixFdRes(-1); // so that the child hears when its parent gives up
      _child(childEnd.fd(), parent);
   }
   childEnd = UnixFdRes(-1);

   std::string message(maxMessage, '\0');
   const ssize_t length =
      TEMP_FAILURE_RETRY(::recv(_channel.fd(), message.data(), message.size(), 0));
   message.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
   const auto giveUp = [&] {
      _channel = UnixFdRes(-1);
      TEMP_FAILURE_RETRY(::waitpid(_process, nullptr, 0));
   };
   if (message.empty() || message[0] != ready) {
      giveUp();
      throw Failure(message.empty() ? "the process for the command ended early"
                                    : message.substr(1));
   }
   std::vector<int> theirs((message.size() - 1) / sizeof(int));
   std::memcpy(theirs.data(), message.data() + 1, theirs.size() * sizeof(int));
   const UnixFdRes pidfd(pidfdOpen(_process));
   for (const int fd : theirs) {
      const int mine = fd < 0 ? -1 : pidfdGetfd(pidfd.fd(), fd);
      if (fd >= 0 && mine < 0) {
         const int error = errno;
         giveUp();
         throw Failure(fmt::format("the kernel forbids to take files from the command "
                                   "(pidfd_getfd; see kernel.yama.ptrace_scope): {}",
                                   std::generic_category().message(error)));
      }
      _opened.emplace_back(mine);
   }
   _listener = std::move(_opened.at(0));
   _filler = std::move(_opened.at(1));
   _opened.erase(_opened.begin(), _opened.begin() + 2);
}

void Launcher::go() {
   (void)::send(_channel.fd(), &ready, 1, MSG_NOSIGNAL);
}

void Launcher::_child(int channel, pid_t parent) const noexcept {
   try {
      // Without its supervisor the command has no devices: it ends with it.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) {
         ::_exit(static_cast<int>(ExitCode::failure));
      }
      std::vector<int> descriptors;
      std::string message(1, ready);
      try {
         _prepare(descriptors);
         message.append(reinterpret_cast<const char*>(descriptors.data()),
                        descriptors.size() * sizeof(int));
      } catch (const std::exception& error) {
         message = failed + std::string(error.what());
      }
      (void)::send(channel, message.data(), message.size(), MSG_NOSIGNAL);
      char answer = failed;
      if (TEMP_FAILURE_RETRY(::recv(channel, &answer, 1, 0)) != 1 || answer != ready) {
         ::_exit(static_cast<int>(ExitCode::failure));
      }
      for (const int fd : descriptors) {
         if (fd >= 0) {
            ::close(fd);
         }
      }
      _execute();
   } catch (...) {
      ::_exit(static_cast<int>(ExitCode::failure));
   }
}

void Launcher::_prepare(std::vector<int>& descriptors) const {
   // Kept open until they are taken.
   FileTree tree;
   std::vector<int> opened;
   std::string deviceNode;
   for (const std::string& path : _paths) {
      const UnixFdRes file = tree.fileIs(path);
      opened.push_back(file.fd());
      file.release();
      if (path.starts_with("/dev/")) {
         deviceNode = path;
      }
   }
   int filler = -1;
   if (!deviceNode.empty()) {
      const UnixFdRes file = tree.noRoomAt(deviceNode);
      filler = file.fd();
      file.release();
   }
   descriptors.push_back(installFilter());
   descriptors.push_back(filler);
   descriptors.insert(descriptors.end(), opened.begin(), opened.end());
}

void Launcher::_execute() const {
   for (const auto& [name, value] : _environment) {
      ::setenv(name.c_str(), value.c_str(), 1);
   }
   std::vector<char*> arguments;
   arguments.reserve(_command.size() + 1);
   for (const std::string& argument : _command) {
      arguments.push_back(const_cast<char*>(argument.c_str()));
   }
   arguments.push_back(nullptr);
   ::sigprocmask(SIG_SETMASK, &_mask, nullptr);
   ::execvp(arguments[0], arguments.data());
   const int error = errno;
   (void)std::fprintf(stderr, "tarnsim: %s: %s\n", arguments[0],
                      std::generic_category().message(error).c_str());
   ::_exit(static_cast<int>(error == ENOENT ? ExitCode::notFound : ExitCode::notExecutable));
}

} // namespace TarnSim
