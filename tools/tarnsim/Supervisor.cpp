#include "tools/tarnsim/Supervisor.h"

#include <fcntl.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <system_error>

#include <fmt/format.h>

#include "tools/tarnsim/Pidfd.h"
#include "tools/tarnsim/SystemError.h"

namespace TarnSim {

using TarnRegFile::Utils::UnixFdRes;

namespace {

/// Interrupts a thread that waits at the listener; nobody else sends it.
const int wakeUp = SIGRTMIN + 3;

seccomp_notif_sizes sizes() {
   seccomp_notif_sizes sizes{};
   if (::syscall(SYS_seccomp, SECCOMP_GET_NOTIF_SIZES, 0, &sizes) != 0) {
      failErrno("the kernel does not know seccomp user notification");
   }
   return sizes;
}

/// The process that a thread belongs to; 0 if it has gone.
pid_t processOf(pid_t thread) {
   std::ifstream status(fmt::format("/proc/{}/status", thread));
   std::string line;
   constexpr std::string_view key = "Tgid:";
   while (std::getline(status, line)) {
      if (line.starts_with(key)) {
         return static_cast<pid_t>(std::strtol(line.c_str() + key.size(), nullptr, 10));
      }
   }
   return 0;
}

/// A descriptor for the thread's process, or -1.
int openProcess(pid_t thread) {
   constexpr unsigned anyThread = O_EXCL; // PIDFD_THREAD, since Linux 6.9
   int fd = pidfdOpen(thread);
   if (fd < 0 && errno != ESRCH) {
      fd = pidfdOpen(thread, anyThread);
   }
   if (fd < 0 && errno == EINVAL) {
      const pid_t process = processOf(thread);
      fd = process > 0 ? pidfdOpen(process) : -1;
   }
   return fd;
}

} // namespace

/// One ioctl that waits for its answer.
struct Supervisor::Waiting {
   explicit Waiting(std::size_t size) : bytes(size) {}

   seccomp_notif& notification() { return *reinterpret_cast<seccomp_notif*>(bytes.data()); }
   const seccomp_notif& notification() const {
      return *reinterpret_cast<const seccomp_notif*>(bytes.data());
   }

   std::vector<std::byte> bytes; // as many as the kernel's idea of a notification takes
   UnixFdRes file{-1};
   BusNode* node = nullptr;
};

Supervisor::Supervisor(UnixFdRes listener, std::size_t buses)
   : _listener(std::move(listener)),
     _notificationSize(std::max<std::size_t>(sizes().seccomp_notif, sizeof(seccomp_notif))),
     _responseSize(std::max<std::size_t>(sizes().seccomp_notif_resp, sizeof(seccomp_notif_resp))),
     _threads(buses + 1), _ended(new std::atomic<bool>[buses + 1]()) {}

Supervisor::~Supervisor() {
   stop();
}

void Supervisor::nodeIs(int file, BusNode& node) {
   struct stat status {};
   if (::fstat(file, &status) != 0) {
      failErrno("fstat");
   }
   _nodes[{status.st_dev, status.st_ino}] = &node;
}

void Supervisor::start() {
   struct sigaction action {};
   action.sa_handler = [](int) {};
   ::sigaction(wakeUp, &action, nullptr);
   for (std::size_t i = 0; i < _threads.size(); ++i) {
      _threads[i] = std::thread([this, i] {
         _serve();
         _ended[i] = true;
      });
   }
}

bool Supervisor::stop() {
   _stopping = true;
   constexpr int patience = 200; // turns, of a millisecond at least
   bool all = true;
   for (std::size_t i = 0; i < _threads.size(); ++i) {
      if (!_threads[i].joinable()) {
         continue;
      }
      // A thread may be on its way to where it waits: asked again until it has heard.
      for (int turn = 0; turn < patience && !_ended[i]; ++turn) {
         ::pthread_kill(_threads[i].native_handle(), wakeUp);
         std::this_thread::sleep_for(std::chrono::milliseconds(turn == 0 ? 0 : 1));
      }
      if (_ended[i]) {
         _threads[i].join();
      } else {
         _threads[i].detach();
         all = false;
      }
   }
   return all;
}

void Supervisor::_serve() {
   sigset_t mask;
   ::sigemptyset(&mask);
   ::sigaddset(&mask, wakeUp);
   ::pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
   while (!_stopping) {
      auto waiting = std::make_shared<Waiting>(_notificationSize);
      if (::ioctl(_listener.fd(), SECCOMP_IOCTL_NOTIF_RECV, waiting->bytes.data()) == 0) {
         _answer(waiting);
         continue;
      }
      if (errno == ENOENT) {
         // It gave up while we came; or there is nobody left.
         pollfd events{_listener.fd(), 0, 0};
         if (::poll(&events, 1, 0) == 1 && (events.revents & POLLHUP) != 0) {
            return;
         }
      } else if (errno != EINTR) {
         (void)std::fprintf(stderr, "tarnsim: no more ioctls are answered: %s\n",
                            std::generic_category().message(errno).c_str());
         return;
      }
   }
}

bool Supervisor::_waits(std::uint64_t id) const {
   return ::ioctl(_listener.fd(), SECCOMP_IOCTL_NOTIF_ID_VALID, &id) == 0;
}

UnixFdRes Supervisor::_fileOf(const Waiting& waiting) {
   const seccomp_notif& notification = waiting.notification();
   const UnixFdRes process(openProcess(static_cast<pid_t>(notification.pid)));
   if (process.fd() < 0) {
      return UnixFdRes(-1);
   }
   UnixFdRes file(pidfdGetfd(process.fd(), static_cast<int>(notification.data.args[0])));
   if (file.fd() < 0 && (errno == EPERM || errno == EACCES) && !_refusalTold.exchange(true)) {
      (void)std::fprintf(stderr,
                         "tarnsim: the kernel forbids to look at process %u: it sees no devices\n",
                         notification.pid);
   }
   return file;
}

void Supervisor::_answer(const std::shared_ptr<Waiting>& waiting) {
   const seccomp_notif& notification = waiting->notification();
   waiting->file = _fileOf(*waiting);
   struct stat status {};
   if (waiting->file.fd() >= 0 && ::fstat(waiting->file.fd(), &status) == 0) {
      if (const auto found = _nodes.find({status.st_dev, status.st_ino}); found != _nodes.end()) {
         waiting->node = found->second;
      }
   }
   if (!waiting->node) {
      // Not ours: the kernel knows what to say, of a bad descriptor, too.
      _send(*waiting, 0, true);
      return;
   }
   const auto request = static_cast<std::uint32_t>(notification.data.args[1]);
   const auto answer = [this, waiting, request] {
      const seccomp_notif& asked = waiting->notification();
      if (!_waits(asked.id)) {
         return; // killed while it waited for its turn
      }
      const IoctlCall call{request, asked.data.args[2], TargetMemory(static_cast<pid_t>(asked.pid)),
                           waiting->file.fd(), [this, &asked] { return _waits(asked.id); }};
      long result = -EIO;
      try {
         result = waiting->node->ioctl(call);
      } catch (const std::exception& error) {
         (void)std::fprintf(stderr, "tarnsim: %s\n", error.what());
      }
      _send(*waiting, result, false);
   };
   if (waiting->node->usesBus(request)) {
      waiting->node->queue().run(answer);
   } else {
      answer();
   }
}

void Supervisor::_send(Waiting& waiting, long result, bool goOn) {
   // While it is held, a lock on it is, too: the command must find it as it left it.
   waiting.file = UnixFdRes(-1);
   std::vector<std::byte> bytes(_responseSize);
   auto& response = *reinterpret_cast<seccomp_notif_resp*>(bytes.data());
   response.id = waiting.notification().id;
   response.val = result < 0 ? 0 : result;
   response.error = result < 0 ? static_cast<int>(result) : 0;
   response.flags = goOn ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0;
   // It may have been killed meanwhile: then there is nobody to tell.
   (void)::ioctl(_listener.fd(), SECCOMP_IOCTL_NOTIF_SEND, &response);
}

} // namespace TarnSim
