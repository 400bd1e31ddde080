#include "agent/TableAccess.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/trace/Trace.h"
#include "TarnRegFile/Utils.h"

namespace Agent {

namespace {

TARN_TRACE_SOURCE(traceSource, "agent/TableAccess");

constexpr mode_t allRights = 07777;
constexpr mode_t lockMode = 0660; // an agent of another user may come

mode_t modeOf(TableAccess::Kind kind) {
   return kind == TableAccess::Kind::wishes ? 0660 : 0640;
}

} // namespace

Platform::Tables::TableBase::MountOptions TableAccess::options(Kind kind) const {
   // What others get comes later: by this mode they would get to write what wakes sleepers.
   return {.role = Platform::Tables::TableRole::writer,
           .mode = modeOf(kind),
           .group = _rights.group.value_or(static_cast<gid_t>(-1))};
}

void TableAccess::applyToDirectory() const {
   const std::string& path = _directory.path();
   if (::mkdir(path.c_str(), 0770) == 0) {
      ::chmod(path.c_str(), 0770); // whatever the process masks off
   }
   if (_isAsked()) {
      _apply(path, 0770 | _others(0005), true);
   }
}

void TableAccess::applyToTable(const std::string& name, Kind kind) const {
   if (!_isAsked()) {
      return;
   }
   _apply(_directory.path() + "/.lock", 0664); // made with the first table
   const std::string path =
      _directory.path() + '/' + Platform::Tables::TableDirectory::fileName(name);
   _apply(path + ".tbl", modeOf(kind) | _others(0004));
   for (const char* companion : {".ctl", ".bell", ".reg"}) {
      _apply(path + companion, 0660 | _others(0004));
   }
}

void TableAccess::applyToLock(const std::string& file) const {
   if (_isAsked()) {
      _apply(_directory.path() + '/' + file, lockMode | _others(0004));
   }
}

void TableAccess::_apply(const std::string& path, mode_t mode, bool isDirectory) const {
   const TarnRegFile::Utils::UnixFdRes file(
      ::open(path.c_str(),
             O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | (isDirectory ? O_DIRECTORY : 0)));
   struct stat status = {};
   if (file.fd() < 0 || ::fstat(file.fd(), &status) != 0) {
      if (errno != ENOENT) {
         TARN_TRACE(traceSource, 0, "apply", "cannot look at the rights of '{}': {}", path,
                    std::strerror(errno));
      }
      return;
   }
   const bool isGroup = !_rights.group || *_rights.group == status.st_gid;
   if (!isGroup && ::fchown(file.fd(), static_cast<uid_t>(-1), *_rights.group) != 0) {
      TARN_TRACE(traceSource, 0, "apply", "cannot give '{}' to group {}: {}", path, *_rights.group,
                 std::strerror(errno));
   }
   if ((status.st_mode & allRights) != mode && ::fchmod(file.fd(), mode) != 0) {
      TARN_TRACE(traceSource, 0, "apply", "cannot give '{}' the mode {:o}: {}", path, mode,
                 std::strerror(errno));
   }
}

} // namespace Agent
