#pragma once

#include <set>
#include <string>
#include <vector>

#include "TarnRegFile/Utils.h"

namespace TarnSim {

/// The files that this process and its children see: lets files be put where device nodes belong,
/// for them alone. The folders concerned are covered by file systems in memory, with all that was
/// there bound in again; with the last of the processes everything is gone.
///
/// Used in the process that becomes the command. Everything throws Failure.
class FileTree {
public:
   /// Gives this process a view of its own of the files: as root in a new mount namespace, else
   /// in a new user namespace, too, in which it is who it was.
   FileTree();

   /// Puts an empty file at `path`, which is absolute, in place of what is there, and opens it
   /// for reading and writing. Anybody may open it.
   TarnRegFile::Utils::UnixFdRes fileIs(const std::string& path);

   /// A symbolic link or folder at `path` in place of what is there.
   void directoryIs(const std::string& path);

   /// Has no file in the file system around `path` grow: writes there then fail. Lasts while the
   /// descriptor returned is open.
   TarnRegFile::Utils::UnixFdRes noRoomAt(const std::string& path);

private:
   void _writable(const std::string& directory);
   void _cover(const std::string& directory);

   std::set<std::string> _covered; // and what was made below
};

} // namespace TarnSim
