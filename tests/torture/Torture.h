#pragma once

#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/tables/TableMount.h"

/// What the torture programs share: the table they work on, and processes.
namespace Torture {

using namespace Platform::Tables;

/// Ends the program as failed; also from a child, whose parent then does so too.
[[noreturn]] inline void fail(const std::string& text) {
   std::fprintf(stderr, "FAILED: %s\n", text.c_str());
   std::fflush(nullptr);
   ::_exit(1);
}

inline void check(bool holds, const std::string& text) {
   if (!holds) {
      fail(text);
   }
}

/// The arguments: --seconds N, --seed N. CI gives a few seconds; by hand it may be days.
struct Options {
   double seconds = 5;
   std::uint32_t seed = std::random_device{}();

   static Options of(int argc, char** argv) {
      Options options;
      for (int i = 1; i + 1 < argc; i += 2) {
         const std::string name = argv[i];
         if (name == "--seconds") {
            options.seconds = std::atof(argv[i + 1]);
         } else if (name == "--seed") {
            options.seed = static_cast<std::uint32_t>(std::strtoul(argv[i + 1], nullptr, 0));
         } else {
            fail("usage: [--seconds N] [--seed N]");
         }
      }
      std::printf("seed %u\n", options.seed);
      return options;
   }

   std::chrono::steady_clock::time_point deadline() const {
      return std::chrono::steady_clock::now() +
             std::chrono::duration_cast<std::chrono::nanoseconds>(
                std::chrono::duration<double>(seconds));
   }
};

/// Records that prove themselves: they hold their key, a number that only grows, and bytes that
/// follow from both, as many as the number says.
inline TableShape shape() {
   TableShape result;
   result.keyType = "Torture::Key";
   result.recordType = "Torture::Record";
   result.keySize = 4;
   result.recordSize = 1044;
   return result;
}

inline std::vector<std::uint8_t> keyBytes(std::uint32_t key) {
   std::vector<std::uint8_t> bytes(sizeof key);
   std::memcpy(bytes.data(), &key, sizeof key);
   return bytes;
}

inline std::vector<std::uint8_t> recordOf(std::uint32_t key, std::uint64_t number) {
   const std::size_t extra = number % 7 == 0 ? 1032 : number % 29;
   std::vector<std::uint8_t> bytes(12 + extra);
   std::memcpy(bytes.data(), &key, sizeof key);
   std::memcpy(bytes.data() + 4, &number, sizeof number);
   for (std::size_t i = 0; i < extra; ++i) {
      bytes[12 + i] = static_cast<std::uint8_t>(key * 31 + number * 17 + i);
   }
   return bytes;
}

/// The number of an intact record; fails for any other.
inline std::uint64_t numberIn(std::uint32_t key, const std::uint64_t* words, std::size_t size) {
   std::uint64_t number = 0;
   check(size >= 12, "a record is cut off");
   std::memcpy(&number, reinterpret_cast<const std::uint8_t*>(words) + 4, sizeof number);
   const std::vector<std::uint8_t> expected = recordOf(key, number);
   check(expected.size() == size && std::memcmp(expected.data(), words, size) == 0,
         "a record is torn: key " + std::to_string(key));
   return number;
}

/// The number under `key`; none if there is no record.
inline std::optional<std::uint64_t> numberAt(const TableMount& mount, std::uint32_t key) {
   std::vector<std::uint64_t> words(mount.recordWords());
   const std::optional<std::size_t> size = mount.get(keyBytes(key), words);
   if (!size) {
      return std::nullopt;
   }
   return numberIn(key, words.data(), *size);
}

inline void checkAudit(const TableMount& mount, const char* when) {
   const TableMount::Audit audit = mount.audit();
   check(audit.problems.empty(),
         std::string("audit ") + when + ": " +
            (audit.problems.empty() ? std::string() : audit.problems.front()));
}

/// Memory that children share with their parent: a value that starts out as T().
template <typename T>
class Shared {
public:
   Shared()
      : _object(new (::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                            -1, 0)) T()) {}
   ~Shared() { ::munmap(_object, sizeof(T)); }
   Shared(const Shared&) = delete;
   Shared& operator=(const Shared&) = delete;

   T& operator*() const noexcept { return *_object; }
   T* operator->() const noexcept { return _object; }

private:
   T* const _object;
};

/// Runs `work` in a process that dies with this one.
inline pid_t child(const std::function<void()>& work) {
   std::fflush(nullptr);
   const pid_t pid = ::fork();
   check(pid >= 0, "fork");
   if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      try {
         work();
      } catch (const std::exception& error) {
         fail(std::string("a process met: ") + error.what());
      }
      std::fflush(nullptr);
      ::_exit(0);
   }
   return pid;
}

/// The same in a process namespace of its own, where it has number 1 whatever others have; as in a
/// container. -1 where that is not permitted, and under sanitizers, which have to see every fork.
inline pid_t childInNamespace([[maybe_unused]] const std::function<void()>& work) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
   return -1;
#else
   std::fflush(nullptr);
   const unsigned long flags = CLONE_NEWUSER | CLONE_NEWPID | SIGCHLD;
   const auto pid = static_cast<pid_t>(::syscall(SYS_clone, flags, nullptr, nullptr, nullptr, 0UL));
   if (pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      check(::getpid() == 1, "a namespace in which there is somebody else");
      try {
         work();
      } catch (const std::exception& error) {
         fail(std::string("a process met: ") + error.what());
      }
      std::fflush(nullptr);
      ::_exit(0);
   }
   return pid;
#endif
}

/// Waits for the end of a process: its status as waitpid() has it.
inline int ended(pid_t pid) {
   int status = 0;
   check(::waitpid(pid, &status, 0) == pid, "waitpid");
   return status;
}

/// A directory of tables in shared memory, removed at the end by the process that made it.
class Directory {
public:
   Directory() {
      char path[] = "/dev/shm/tarn-torture-XXXXXX";
      check(::mkdtemp(path) != nullptr, "mkdtemp");
      _path = path;
   }
   ~Directory() {
      if (::getpid() == _owner) {
         const std::string command = "rm -rf '" + _path + "'";
         check(std::system(command.c_str()) == 0, command);
      }
   }
   Directory(const Directory&) = delete;
   Directory& operator=(const Directory&) = delete;

   const std::string& path() const noexcept { return _path; }
   TableDirectory tables() const { return TableDirectory(_path); }

private:
   std::string _path;
   const pid_t _owner = ::getpid();
};

inline TableMount::Options writer() {
   return {.role = TableRole::writer, .shape = shape(), .create = true};
}
inline TableMount::Options reader() {
   return {.role = TableRole::reader, .shape = shape(), .create = true};
}

} // namespace Torture
