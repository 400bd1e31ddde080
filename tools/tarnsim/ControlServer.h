#pragma once

#include <poll.h>

#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "TarnRegFile/Utils.h"
#include "tools/tarnsim/ControlCommands.h"

namespace TarnSim {

/// Takes commands for the simulation at a Unix socket: a line each, answered with any number of
/// lines "= TEXT" and then "ok", or with "error: TEXT". The socket is for its owner only, and goes
/// with this object; one that a dead process left is replaced.
///
/// It has no thread: its owner polls. Clients that send too much or take too little are dropped.
class ControlServer {
public:
   static constexpr std::size_t maxLine = 4096;
   static constexpr std::size_t maxClients = 16;

   /// Throws Failure when there can be no socket at `path`, or somebody is listening there.
   ControlServer(const std::string& path, Simulation& simulation);
   ~ControlServer();
   ControlServer(const ControlServer&) = delete;
   ControlServer& operator=(const ControlServer&) = delete;

   /// The absolute path of the socket.
   const std::string& path() const noexcept { return _path; }

   /// Adds what is to be waited for.
   void pollOn(std::vector<pollfd>& events) const;

   /// Does what can be done without waiting.
   void work();

private:
   struct Client {
      TarnRegFile::Utils::UnixFdRes socket;
      std::string in;
      std::string out;
   };

   void _accept();
   bool _serve(Client& client);
   bool _flush(Client& client);
   void _answer(Client& client, std::string_view line);

   std::string _path;
   ControlCommands _commands;
   TarnRegFile::Utils::UnixFdRes _socket{-1};
   std::list<Client> _clients;
};

} // namespace TarnSim
