#include "tools/tarnsim/FileTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <string_view>

#include <fmt/format.h>

#include "tools/tarnsim/Failure.h"
#include "tools/tarnsim/SystemError.h"

namespace TarnSim {

using TarnRegFile::Utils::UnixFdRes;

namespace {

void writeTo(const char* path, const std::string& text) {
   const UnixFdRes file(::open(path, O_WRONLY | O_CLOEXEC));
   if (file.fd() < 0 || ::write(file.fd(), text.data(), text.size()) < 0) {
      failErrno(
         fmt::format("the kernel forbids to stay the same user in a user namespace ({})", path));
   }
}

void enterNamespaces() {
   if (::unshare(CLONE_NEWNS) == 0) {
      return;
   }
   const uid_t user = ::geteuid();
   const gid_t group = ::getegid();
   if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
      failErrno("the kernel forbids namespaces of one's own (user and mount namespace; see "
                "user.max_user_namespaces, kernel.unprivileged_userns_clone and "
                "kernel.apparmor_restrict_unprivileged_userns)");
   }
   // Otherwise the group map is not ours to write.
   writeTo("/proc/self/setgroups", "deny");
   writeTo("/proc/self/uid_map", fmt::format("{} {} 1", user, user));
   writeTo("/proc/self/gid_map", fmt::format("{} {} 1", group, group));
}

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

/// Makes what `name` is in the folder `from` appear in the empty folder `to` under the same name.
/// What cannot be bound, an entry that vanishes for instance, is left out.
void carryOver(int from, int to, const std::string& name) {
   struct stat status {};
   if (::fstatat(from, name.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0) {
      return;
   }
   if (S_ISLNK(status.st_mode)) {
      std::string target(4096, '\0');
      const ssize_t length = ::readlinkat(from, name.c_str(), target.data(), target.size() - 1);
      if (length > 0) {
         target.resize(static_cast<std::size_t>(length));
         (void)::symlinkat(target.c_str(), to, name.c_str());
      }
      return;
   }
   const bool isDirectory = S_ISDIR(status.st_mode);
   if (isDirectory) {
      if (::mkdirat(to, name.c_str(), 0755) != 0) {
         return;
      }
   } else {
      const UnixFdRes place(
         ::openat(to, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644));
      if (place.fd() < 0) {
         return;
      }
   }
   const std::string source = fmt::format("/proc/self/fd/{}/{}", from, name);
   const std::string target = fmt::format("/proc/self/fd/{}/{}", to, name);
   if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
      ::unlinkat(to, name.c_str(), isDirectory ? AT_REMOVEDIR : 0);
   }
}

std::string parentOf(const std::string& path) {
   return std::filesystem::path(path).parent_path().string();
}

} // namespace

FileTree::FileTree() {
   enterNamespaces();
   // Nothing that happens to our mounts reaches the rest of the machine.
   if (::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0) {
      if (errno == EINVAL) {
         throw Failure("the root directory is no mount point, as in a chroot, and what is mounted "
                       "here could be seen outside; mount --bind DIRECTORY DIRECTORY before the "
                       "chroot makes it one");
      }
      failErrno("the kernel forbids to change a mount namespace");
   }
}

void FileTree::_cover(const std::string& directory) {
   // Opened before it is covered, so that it leads to what is below.
   const Directory below(::opendir(directory.c_str()), ::closedir);
   if (!below) {
      failErrno(fmt::format("cannot open {}", directory));
   }
   if (::mount("tarnsim", directory.c_str(), "tmpfs", MS_NOSUID, "mode=0755") != 0) {
      failErrno(
         fmt::format("the kernel forbids to put a file system in memory over {}", directory));
   }
   const UnixFdRes above(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
   if (above.fd() < 0) {
      failErrno(fmt::format("cannot open {}", directory));
   }
   while (const dirent* entry = ::readdir(below.get())) {
      const std::string name(static_cast<const char*>(entry->d_name));
      if (name != "." && name != "..") {
         carryOver(::dirfd(below.get()), above.fd(), name);
      }
   }
   _covered.insert(directory);
}

/// Has files and folders be possible in `directory`, which may not exist.
void FileTree::_writable(const std::string& directory) {
   if (_covered.contains(directory)) {
      return;
   }
   if (directory.empty() || directory == "/") {
      throw Failure("there is no folder for the device nodes: /dev and /sys must exist");
   }
   struct stat status {};
   if (::stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      _cover(directory);
      return;
   }
   directoryIs(directory);
}

void FileTree::directoryIs(const std::string& path) {
   if (_covered.contains(path)) {
      return;
   }
   _writable(parentOf(path));
   // A symbolic link of a real device goes, and so does a file; a folder that was bound in is
   // covered, as the real device's would be.
   if (::unlink(path.c_str()) != 0 && errno == EISDIR) {
      if (::mount("tarnsim", path.c_str(), "tmpfs", MS_NOSUID, "mode=0755") != 0) {
         failErrno(fmt::format("cannot make {}", path));
      }
   } else if (::mkdir(path.c_str(), 0755) != 0) {
      failErrno(fmt::format("cannot make {}", path));
   }
   ::chmod(path.c_str(), 0755); // whatever the umask
   _covered.insert(path);
}

UnixFdRes FileTree::fileIs(const std::string& path) {
   _writable(parentOf(path));
   // A real device of that name was bound in: its place is taken.
   ::umount2(path.c_str(), MNT_DETACH);
   ::unlink(path.c_str());
   UnixFdRes file(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
   if (file.fd() < 0) {
      failErrno(fmt::format("cannot make {}", path));
   }
   ::fchmod(file.fd(), 0666); // whatever the umask
   return file;
}

UnixFdRes FileTree::noRoomAt(const std::string& path) {
   const std::string directory = parentOf(path);
   // As small as the links that were carried over allow.
   for (const char* size : {"size=64k", "size=1m", "size=16m"}) {
      if (::mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT | MS_NOSUID, size) == 0) {
         break;
      }
   }
   UnixFdRes filler(::open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
   const std::array<char, 4096> page{};
   constexpr int most = 16 << 8;
   for (int i = 0; filler.fd() >= 0 && i < most; ++i) {
      if (::write(filler.fd(), page.data(), page.size()) < 0) {
         break;
      }
   }
   return filler;
}

} // namespace TarnSim
