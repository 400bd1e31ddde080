#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "nimbo/PeerPolicy.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/FdWatch.h"
#include "platform/entity/Timer.h"
#include "TarnRegFile/Utils.h"

namespace Nimbo {

/// Gives everybody who connects a document, and closes the connection.
///
/// Nobody can hold it up: it reads nothing, never waits, gives a client that does not read a few
/// seconds to take what does not fit into the socket at once, and has so many of these at a time
/// and no more.
///
/// Owned by the daemon. All calls on the event loop's thread.
class StatusSocket {
public:
   static constexpr std::size_t mostClients = 16;
   static constexpr std::chrono::milliseconds patience{5000};

   using Document = std::function<std::string()>;

   /// Takes connections in at the listening, non-blocking socket `fd`, which stays the caller's and
   /// has to outlive this. Those whom `policy` does not allow get nothing. `document` is asked
   /// anew for each client; for one for whom it throws there is none.
   StatusSocket(Platform::EventLoop& loop, int fd, PeerPolicy policy, Document document,
                std::chrono::nanoseconds clientTime = patience);
   ~StatusSocket();
   StatusSocket(const StatusSocket&) = delete;
   StatusSocket& operator=(const StatusSocket&) = delete;

   /// Clients that have not taken all of their document yet.
   [[nodiscard]] std::size_t clients() const noexcept { return _clients.size(); }

private:
   /// What a client has not taken yet.
   struct Client {
      TarnRegFile::Utils::UnixFdRes fd{-1};
      std::string text;
      std::size_t sent = 0;
      std::unique_ptr<Platform::FdWatch> watch; // before the descriptor goes
      std::unique_ptr<Platform::Timer> end;
   };

   void _accept();
   void _serve(TarnRegFile::Utils::UnixFdRes fd);
   static bool _isOver(Client& client) noexcept;

   Platform::EventLoop& _loop;
   const PeerPolicy _policy;
   const Document _document;
   const std::chrono::nanoseconds _clientTime;
   std::list<Client> _clients;
   Platform::FdWatch _listener;
   Platform::Timer _acceptAgain;
};

} // namespace Nimbo
