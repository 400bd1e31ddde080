#include "platform/tables/private/TableFiles.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/tables/CorruptionException.h"
#include "platform/tables/private/DirectoryLock.h"
#include "platform/tables/private/Geometry.h"
#include "platform/tables/private/MountRegister.h"
#include "platform/tables/private/TableEditor.h"
#include "platform/tables/private/TableLock.h"

namespace Platform::Tables {

namespace {

/// A writer is done in a fraction of a microsecond, unless it is not running, or dead.
constexpr std::chrono::milliseconds spoilPatience{20};

constexpr int common = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

/// What the functions below work on.
struct Place {
   const DirectoryLock& lock;
   std::string path; // of the directory
   std::string file; // without what follows the dot
   std::string name; // of the table

   std::string fileOf(const char* suffix) const { return file + suffix; }
   std::string pathOf(const char* suffix) const { return path + "/" + file + suffix; }
};

[[noreturn]] void throwCannot(const char* what, const std::string& path) {
   throwErrno(fmt::format("cannot {} '{}'", what, path));
}

// Only a file of its own: through a second name somebody might have got others to open what they
// would not.
void checkRegular(int fd, const std::string& path) {
   struct stat status = {};
   if (::fstat(fd, &status) != 0) {
      throwCannot("look at", path);
   }
   if (!S_ISREG(status.st_mode)) {
      throwError(EINVAL, fmt::format("'{}' is no regular file", path));
   }
   if (status.st_nlink > 1) {
      throwError(EMLINK, fmt::format("'{}' has more than one name", path));
   }
}

FileHandle openFile(const Place& place, const char* suffix, int flags) {
   FileHandle file(::openat(place.lock.fd(), place.fileOf(suffix).c_str(), flags | common));
   if (!file.isOpen()) {
      throwCannot("open", place.pathOf(suffix));
   }
   checkRegular(file.fd(), place.pathOf(suffix));
   return file;
}

// A reader goes without what it is not allowed to write.
FileHandle openOptional(const Place& place, const char* suffix, TableRole role) {
   FileHandle file(::openat(place.lock.fd(), place.fileOf(suffix).c_str(), O_RDWR | common));
   const bool refused = errno == EACCES || errno == EPERM || errno == EROFS;
   if (!file.isOpen() && !(role == TableRole::reader && refused)) {
      throwCannot("open", place.pathOf(suffix));
   }
   if (file.isOpen()) {
      checkRegular(file.fd(), place.pathOf(suffix));
   }
   return file;
}

void permissionsAre(int fd, mode_t mode, gid_t group, const std::string& path) {
   if (group != static_cast<gid_t>(-1) && ::fchown(fd, static_cast<uid_t>(-1), group) != 0) {
      throwCannot("change the group of", path);
   }
   if (::fchmod(fd, mode) != 0) {
      throwCannot("change the mode of", path);
   }
}

void spaceIs(int fd, std::size_t size, const std::string& path) {
   if (const int error = ::posix_fallocate(fd, 0, static_cast<off_t>(size))) {
      errno = error;
      throwCannot("get memory for", path);
   }
}

// The files around a table that is about to be made. Where a process died between these and the
// table, they are taken over.
void makeCompanion(const Place& place, const char* suffix, std::size_t size,
                   const TableFiles::Permissions& permissions) {
   const std::string path = place.pathOf(suffix);
   const FileHandle file(
      ::openat(place.lock.fd(), place.fileOf(suffix).c_str(), O_RDWR | O_CREAT | common, 0600));
   if (!file.isOpen()) {
      throwCannot("make", path);
   }
   checkRegular(file.fd(), path);
   spaceIs(file.fd(), size, path);
   // Who may read the table may ask to be woken, and registers as a mount.
   const mode_t mode = permissions.mode | (permissions.mode & 0444) >> 1;
   permissionsAre(file.fd(), mode, permissions.group, path);
}

void format(int fd, const TableShape& shape, const std::string& name) {
   const Geometry geometry(shape);
   if (::ftruncate(fd, static_cast<off_t>(geometry.fileSize)) != 0) {
      throwErrno(fmt::format("cannot make the shared table '{}'", name));
   }
   std::uint64_t tableId = 0;
   if (::getrandom(&tableId, sizeof tableId, 0) != static_cast<ssize_t>(sizeof tableId)) {
      throwErrno(fmt::format("cannot make the shared table '{}'", name));
   }
   // Room for everything before the slots; none of them is touched yet.
   void* const memory =
      ::mmap(nullptr, geometry.slotsOffset, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   if (memory == MAP_FAILED) {
      throwErrno(fmt::format("cannot make the shared table '{}'", name));
   }
   TableEditor editor(static_cast<std::uint8_t*>(memory), fd, geometry, tableId, 0, nullptr);
   const Finding finding = editor.format();
   ::munmap(memory, geometry.slotsOffset);
   if (!finding.isDone()) {
      errno = finding.error;
      throwErrno(fmt::format("no memory for the shared table '{}'", name));
   }
   const Header header = Header::of(shape, tableId);
   if (::pwrite(fd, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) {
      throwErrno(fmt::format("cannot make the shared table '{}'", name));
   }
}

// Makes the table under no name at all, and gives it its name when it is complete.
void makeTable(const Place& place, const TableShape& shape,
               const TableFiles::Permissions& permissions) {
   const std::string path = place.pathOf(".tbl");
   const FileHandle file(::openat(place.lock.fd(), ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
   if (!file.isOpen()) {
      throwCannot("make", path);
   }
   format(file.fd(), shape, place.name);
   permissionsAre(file.fd(), permissions.mode, permissions.group, path);
   const std::string unnamed = fmt::format("/proc/self/fd/{}", file.fd());
   if (::linkat(AT_FDCWD, unnamed.c_str(), place.lock.fd(), place.fileOf(".tbl").c_str(),
                AT_SYMLINK_FOLLOW) != 0) {
      throwCannot("make", path);
   }
}

bool exists(const Place& place) {
   struct stat status = {};
   return ::fstatat(place.lock.fd(), place.fileOf(".tbl").c_str(), &status, AT_SYMLINK_NOFOLLOW) ==
          0;
}

void make(const Place& place, const TableShape& shape, const TableFiles::Permissions& permissions) {
   if (!exists(place)) {
      makeCompanion(place, ".ctl", Geometry::pageSize, permissions);
      // A byte, so that ringing never needs memory.
      makeCompanion(place, ".bell", 1, permissions);
      makeCompanion(place, ".reg", Geometry::pageSize, permissions);
      makeTable(place, shape, permissions);
   }
}

Header readHeader(int fd, const std::string& name) {
   Header header = {};
   const ssize_t size = ::pread(fd, &header, sizeof header, 0);
   if (size < 0) {
      throwErrno(fmt::format("cannot read the shared table '{}'", name));
   }
   const std::string objection = size == static_cast<ssize_t>(sizeof header)
                                    ? header.objection()
                                    : "it is shorter than its header";
   if (!objection.empty()) {
      throw CorruptionException(
         fmt::format("shared table '{}' cannot be used: {}", name, objection));
   }
   struct stat status = {};
   if (::fstat(fd, &status) != 0) {
      throwErrno(fmt::format("cannot read the shared table '{}'", name));
   }
   if (static_cast<std::uint64_t>(status.st_size) != Geometry(header.shape()).fileSize) {
      throw CorruptionException(
         fmt::format("shared table '{}' cannot be used: its file has {} bytes instead of {}", name,
                     status.st_size, Geometry(header.shape()).fileSize));
   }
   return header;
}

void openFiles(const Place& place, TableRole role, const std::function<void(TableFiles)>& onOpen) {
   const int access = role == TableRole::writer ? O_RDWR : O_RDONLY;
   TableFiles files;
   files.table = openFile(place, ".tbl", access);
   files.header = readHeader(files.table.fd(), place.name);
   files.control = openOptional(place, ".ctl", role);
   files.mounts = openOptional(place, ".reg", role);
   files.bellWatch = openFile(place, ".bell", O_RDONLY);
   if (role == TableRole::writer) {
      files.bell = openFile(place, ".bell", O_WRONLY);
   }
   onOpen(std::move(files));
}

} // namespace

void TableFiles::open(const TableDirectory& directory, const std::string& name, TableRole role,
                      const std::optional<TableShape>& shape, const Permissions& permissions,
                      const std::function<void(TableFiles)>& onOpen) {
   const std::string file = TableDirectory::fileName(name);
   // Who may read a table need not be allowed to make one, so that is only tried if there is none.
   try {
      const DirectoryLock lock(directory, DirectoryLock::Mode::shared);
      openFiles({lock, directory.path(), file, name}, role, onOpen);
      return;
   } catch (const std::system_error& error) {
      if (!shape || error.code() != std::error_code(ENOENT, std::system_category())) {
         throw;
      }
   }
   const DirectoryLock lock(directory, DirectoryLock::Mode::exclusive);
   const Place place{lock, directory.path(), file, name};
   make(place, *shape, permissions);
   openFiles(place, role, onOpen);
}

void TableFiles::spoil(const TableDirectory& directory, const std::string& name) {
   const std::string file = TableDirectory::fileName(name);
   const DirectoryLock lock(directory, DirectoryLock::Mode::shared);
   const Place place{lock, directory.path(), file, name};
   const FileHandle table = openFile(place, ".tbl", O_RDWR);
   constexpr Word none = 0; // which is never a sealed word
   constexpr auto indexOffset =
      static_cast<off_t>(Geometry::controlOffset + 64 +
                         sizeof(Word) * static_cast<unsigned>(TableImage::Control::index));
   struct stat status = {};
   if (::fstat(table.fd(), &status) != 0 ||
       status.st_size < static_cast<off_t>(2 * Geometry::pageSize)) {
      return; // it was cut off, and is no use to anybody
   }
   const auto end = std::chrono::steady_clock::now() + spoilPatience;
   for (;;) {
      // Every write looks at it first. One that had may be about to put another one there.
      if (::pwrite(table.fd(), &none, sizeof none, indexOffset) !=
          static_cast<ssize_t>(sizeof none)) {
         throwCannot("write", place.pathOf(".tbl"));
      }
      std::uint32_t writer = 0;
      Word index = 0;
      const bool isRead = ::pread(table.fd(), &writer, sizeof writer, Geometry::controlOffset) ==
                             static_cast<ssize_t>(sizeof writer) &&
                          ::pread(table.fd(), &index, sizeof index, indexOffset) ==
                             static_cast<ssize_t>(sizeof index);
      if (!isRead || (!TableLock::isTaken(writer) && index == none) ||
          std::chrono::steady_clock::now() >= end) {
         return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
}

void TableFiles::remove(const TableDirectory& directory, const std::string& name, bool force) {
   const std::string file = TableDirectory::fileName(name);
   const std::string missing =
      fmt::format("there is no shared table '{}' in '{}'", name, directory.path());
   if (::access(directory.path().c_str(), F_OK) != 0 && errno == ENOENT) {
      throwError(ENOENT, missing); // before a directory is made to have something to lock
   }
   const DirectoryLock lock(directory, DirectoryLock::Mode::exclusive);
   const Place place{lock, directory.path(), file, name};
   if (!exists(place)) {
      throwError(ENOENT, missing);
   }
   if (!force) {
      const FileHandle mounts(::openat(lock.fd(), place.fileOf(".reg").c_str(), O_RDWR | common));
      if (!mounts.isOpen() && errno != ENOENT) {
         throwCannot("open", place.pathOf(".reg")); // it cannot be told whether it is mounted
      }
      if (mounts.isOpen() && !MountRegister::mounts(mounts.fd()).empty()) {
         throwError(EBUSY, fmt::format("the shared table '{}' is mounted", name));
      }
   }
   // The table first: without it the others are nothing.
   for (const char* suffix : {".tbl", ".ctl", ".bell", ".reg"}) {
      if (::unlinkat(lock.fd(), place.fileOf(suffix).c_str(), 0) != 0 && errno != ENOENT) {
         throwCannot("remove", place.pathOf(suffix));
      }
   }
}

} // namespace Platform::Tables
