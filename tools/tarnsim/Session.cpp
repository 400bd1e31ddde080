#include "tools/tarnsim/Session.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include "board/SimulatedBoardParser.h"
#include "tools/tarnsim/SystemError.h"

namespace TarnSim {

using TarnRegFile::Utils::UnixFdRes;

namespace {

constexpr int signalBase = 128;

/// What is passed on to the command when somebody sends it to tarnsim.
constexpr int forwarded[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGCONT};

/// The command's exit status, once it has ended.
std::optional<int> statusOf(pid_t process) {
   int status = 0;
   if (TEMP_FAILURE_RETRY(::waitpid(process, &status, WNOHANG)) != process) {
      return std::nullopt;
   }
   if (WIFSIGNALED(status)) {
      return signalBase + WTERMSIG(status);
   }
   return WEXITSTATUS(status);
}

} // namespace

int Session::run(bool& clean) {
   clean = true;
   const Board::SimulatedBoard board = Board::simulatedBoardFromFile(_options.board);
   auto simulation = std::make_unique<Simulation>(board);
   if (!_options.wireLog.empty()) {
      UnixFdRes log(::open(_options.wireLog.c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666));
      if (log.fd() < 0) {
         failErrno(_options.wireLog);
      }
      simulation->wireLogIs(std::move(log));
   }
   std::optional<ControlServer> control;
   std::vector<std::pair<std::string, std::string>> environment;
   if (!_options.control.empty()) {
      control.emplace(_options.control, *simulation);
      environment.emplace_back("TARNSIM_CONTROL", control->path());
   }

   sigset_t taken;
   sigset_t before;
   ::sigemptyset(&taken);
   ::sigaddset(&taken, SIGCHLD);
   for (const int signal : forwarded) {
      ::sigaddset(&taken, signal);
   }
   // Before there are threads, so that all have it.
   ::pthread_sigmask(SIG_BLOCK, &taken, &before);
   const UnixFdRes signals(::signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
   if (signals.fd() < 0) {
      failErrno("signalfd");
   }

   std::vector<std::string> paths;
   for (const Simulation::File& file : simulation->files()) {
      paths.push_back(file.path);
   }
   Launcher launcher(_options.command, std::move(paths), std::move(environment), before);
   launcher.start();
   auto supervisor = std::make_unique<Supervisor>(launcher.listener(), simulation->buses());
   std::vector<UnixFdRes> opened = launcher.files();
   for (std::size_t i = 0; i < opened.size(); ++i) {
      const Simulation::File& file = simulation->files()[i];
      if (file.node) {
         supervisor->nodeIs(opened[i].fd(), *file.node);
      } else if (file.pci) {
         file.pci->fileIs(std::move(opened[i]));
      } else if (::write(opened[i].fd(), file.text.data(), file.text.size()) < 0) {
         failErrno(file.path);
      }
   }
   supervisor->start();
   launcher.go();
   const int status = _wait(launcher, signals.fd(), control ? &*control : nullptr);
   clean = supervisor->stop();
   if (!clean) {
      control.reset();
      // Threads still use them; the process is about to end.
      (void)supervisor.release();
      (void)simulation.release();
   }
   return status;
}

int Session::_wait(Launcher& launcher, int signals, ControlServer* control) const {
   while (true) {
      std::vector<pollfd> events{{signals, POLLIN, 0}};
      if (control) {
         control->pollOn(events);
      }
      if (::poll(events.data(), events.size(), -1) < 0 && errno != EINTR) {
         failErrno("poll");
      }
      signalfd_siginfo info{};
      while (::read(signals, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
         const int signal = static_cast<int>(info.ssi_signo);
         // What the terminal sends goes to the command, too, without our help.
         if (signal != SIGCHLD && info.ssi_code != SI_KERNEL) {
            ::kill(launcher.process(), signal);
         }
      }
      // Commands that arrived before the end are still answered.
      if (control) {
         control->work();
      }
      if (const auto status = statusOf(launcher.process())) {
         return *status;
      }
   }
}

} // namespace TarnSim
