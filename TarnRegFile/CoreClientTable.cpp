#include "TarnRegFile/CoreClientTable.h"

#include <sys/stat.h>

#include <fmt/format.h>

#include "TarnRegFile/ShadowError.h"

namespace TarnRegFile::Sable {

namespace {

constexpr const char* notPermitted = "core '{}': {}";
constexpr const char* damaged = "core '{}': {}";

std::optional<struct stat> statusOf(const Platform::Tables::TableDirectory& directory,
                                    const String& tableName, const char* suffix) {
   const String path =
      directory.path() + '/' + Platform::Tables::TableDirectory::fileName(tableName) + suffix;
   struct stat status = {};
   return ::lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

} // namespace

void throwDamaged(const String& coreName, const char* what) {
   throw ShadowError(ShadowError::Kind::damaged, fmt::format(damaged, coreName, what));
}

void throwNotPermitted(const String& coreName, const std::system_error& error) {
   if (error.code() == std::errc::permission_denied ||
       error.code() == std::errc::read_only_file_system) {
      throw ShadowError(ShadowError::Kind::notPermitted,
                        fmt::format(notPermitted, coreName, error.what()));
   }
}

std::optional<TableFile> tableFile(const Platform::Tables::TableDirectory& directory,
                                   const String& tableName) {
   const std::optional<struct stat> found = statusOf(directory, tableName, ".tbl");
   if (!found) {
      return std::nullopt;
   }
   return TableFile{found->st_dev, found->st_ino, found->st_ctim.tv_sec, found->st_ctim.tv_nsec};
}

// A mount keeps its bell open, so that no other file gets its number. All files of a table are
// removed together, and of a new one the table itself comes last.
bool isAnotherTable(const Platform::Tables::TableDirectory& directory, const String& tableName,
                    const Platform::Tables::TableMount& mount) {
   struct stat own = {};
   const std::optional<struct stat> found = statusOf(directory, tableName, ".bell");
   return found && ::fstat(mount.bellFd(), &own) == 0 &&
          (found->st_dev != own.st_dev || found->st_ino != own.st_ino) &&
          tableFile(directory, tableName);
}

} // namespace TarnRegFile::Sable
