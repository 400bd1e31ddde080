#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "TarnRegFile/Utils.h"

namespace Nimbo {

/// The Unix stream socket that the daemon listens on, and its place in the file system.
///
/// Made by itself, it keeps its place with a lock on a file beside it, NAME.lock, for as long as it
/// lives, so that of two daemons that start at once one gets the place and the other an error. What
/// a killed daemon left there is replaced; a socket that somebody accepts connections at is not,
/// nor is a file that is no socket. The name appears with the right mode and owner and with a
/// listening socket behind it, in one step: a client finds the old one, or none, or the new one.
/// The lock file stays when all is over: without it two daemons could hold locks on two files of
/// one name.
///
/// Made by systemd, name, mode and lifetime are systemd's.
///
/// Owned by the program, on one thread.
class ListeningSocket {
public:
   struct Place {
      std::string directory; ///< made, with mode 0755, if it is missing
      std::string file;
      mode_t mode = 0660;
      std::optional<uid_t> owner = std::nullopt; ///< otherwise the process's own
      std::optional<gid_t> group = std::nullopt;
   };

   /// Throws std::runtime_error, a Platform::ErrnoException where the system refused something,
   /// that names the path and says why there is no socket; nothing has changed then but that the
   /// directory and the lock file may exist.
   explicit ListeningSocket(const Place& place);

   /// The socket that systemd passed to this process, or null if it passed nothing. To be asked
   /// once. Throws std::runtime_error for anything but one listening Unix stream socket.
   static std::unique_ptr<ListeningSocket> activated();

   /// Takes the name away, unless it is somebody else's by now, or systemd's.
   ~ListeningSocket();

   ListeningSocket(const ListeningSocket&) = delete;
   ListeningSocket& operator=(const ListeningSocket&) = delete;

   /// Listening, non-blocking, closed on exec.
   [[nodiscard]] int fd() const noexcept { return _socket.fd(); }

   [[nodiscard]] const std::string& path() const noexcept { return _path; }
   [[nodiscard]] bool isActivated() const noexcept { return _directory.fd() < 0; }

private:
   using Fd = TarnRegFile::Utils::UnixFdRes;

   ListeningSocket(Fd socket, std::string path);

   void _takeLock();
   bool _isStale() const;
   void _bind(const Place& place);
   void _appear(bool replaces);

   const std::string _path;
   const std::string _file;
   Fd _directory{-1};
   Fd _lock{-1}; // outlives the name and the socket
   Fd _socket{-1};
   dev_t _device = 0; // which file the name is
   ino_t _inode = 0;
};

} // namespace Nimbo
