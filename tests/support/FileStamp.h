#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <ostream>
#include <sstream>
#include <string>

namespace TestSupport {

/// What tells whether a file was touched: two stamps are equal when it was neither replaced nor
/// written to in between, not even with the same content. pastIs() makes that independent of the
/// resolution of the file system's clock.
class FileStamp {
public:
   explicit FileStamp(const std::string& path) {
      struct stat status {};
      if (::stat(path.c_str(), &status) == 0) {
         exists = true;
         inode = status.st_ino;
         modified = status.st_mtim.tv_sec * 1'000'000'000LL + status.st_mtim.tv_nsec;
         std::ifstream in(path, std::ios::binary);
         std::ostringstream text;
         text << in.rdbuf();
         content = text.str();
      }
   }

   /// Dates the file back to 1970 and returns its stamp; whoever writes it now changes the date.
   static FileStamp pastIs(const std::string& path) {
      const timespec times[2] = {{1000, 0}, {1000, 0}};
      ::utimensat(AT_FDCWD, path.c_str(), times, 0);
      return FileStamp(path);
   }

   friend bool operator==(const FileStamp&, const FileStamp&) = default;
   friend std::ostream& operator<<(std::ostream& out, const FileStamp& stamp) {
      return stamp.exists ? out << "inode " << stamp.inode << " modified " << stamp.modified << ": "
                                << stamp.content
                          : out << "no file";
   }

   bool exists = false;
   ino_t inode = 0;
   long long modified = 0;
   std::string content;
};

} // namespace TestSupport
