#include "platform/tables/TableDirectory.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/tables/private/TableFiles.h"

namespace Platform::Tables {

namespace {

constexpr const char* defaultPath = "/dev/shm/tarn";
constexpr std::string_view suffix = ".tbl";
constexpr std::size_t maxFileName = 200;

bool isPlain(char c) noexcept {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
          c == '-';
}

int hexDigit(char c) noexcept {
   if (c >= '0' && c <= '9') {
      return c - '0';
   }
   return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// The name that a file stands for; none if tables have no such files.
std::optional<std::string> tableName(std::string_view file) {
   if (!file.ends_with(suffix)) {
      return std::nullopt;
   }
   file.remove_suffix(suffix.size());
   std::string name;
   for (std::size_t i = 0; i < file.size(); ++i) {
      if (file[i] == '%' && i + 2 < file.size() && hexDigit(file[i + 1]) >= 0 &&
          hexDigit(file[i + 2]) >= 0) {
         name.push_back(static_cast<char>(hexDigit(file[i + 1]) * 16 + hexDigit(file[i + 2])));
         i += 2;
      } else {
         name.push_back(file[i]);
      }
   }
   if (name.empty() || TableDirectory::fileName(name) != file) {
      return std::nullopt;
   }
   return name;
}

} // namespace

TableDirectory::TableDirectory() {
   const char* path = std::getenv("TARN_TABLE_DIR");
   _path = path && *path ? path : defaultPath;
}

TableDirectory::TableDirectory(std::string path) : _path(std::move(path)) {
   if (_path.empty()) {
      throwError(EINVAL, "the path of a table directory must not be empty");
   }
}

std::vector<std::string> TableDirectory::tableNames() const {
   std::vector<std::string> names;
   const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(_path.c_str()), ::closedir);
   if (!directory) {
      if (errno == ENOENT) {
         return names;
      }
      throwErrno(fmt::format("cannot read the table directory '{}'", _path));
   }
   while (const dirent* entry = ::readdir(directory.get())) {
      if (std::optional<std::string> name = tableName(entry->d_name)) {
         names.push_back(std::move(*name));
      }
   }
   std::sort(names.begin(), names.end());
   return names;
}

void TableDirectory::tableDel(const std::string& name, bool force) const {
   TableFiles::remove(*this, name, force);
}

void TableDirectory::tableSpoil(const std::string& name) const {
   TableFiles::spoil(*this, name);
}

std::string TableDirectory::fileName(std::string_view name) {
   if (name.empty()) {
      throwError(EINVAL, "the name of a table must not be empty");
   }
   std::string file;
   for (const char c : name) {
      // A dot is plain where it cannot make a hidden file.
      if (isPlain(c) || (c == '.' && !file.empty())) {
         file.push_back(c);
      } else {
         file += fmt::format("%{:02X}", static_cast<unsigned char>(c));
      }
   }
   if (file.size() > maxFileName) {
      throwError(ENAMETOOLONG, fmt::format("the name of a table is too long: '{}'", name));
   }
   return file;
}

} // namespace Platform::Tables
