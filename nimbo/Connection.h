#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "nimbo/FrameReader.h"
#include "nimbo/Transaction.h"
#include "platform/metrics/Counter.h"
#include "TarnRegFile/Utils.h"

namespace Nimbo {

/// A client: its socket, what came from it, the transaction under way, and the response that it
/// has not taken yet. What it can make the daemon hold is bounded by that: nothing more is read
/// until the response is gone.
///
/// Used by one thread at a time: the one that its socket was found ready on, or that has the bus
/// that its transaction is for. The first three of its operations may be used by any.
class Connection {
public:
   enum class Received : std::uint8_t {
      frame,   ///< There is one: see reader().
      nothing, ///< More has to come.
      end,     ///< The client has gone.
      broken,  ///< What came is no request: see reader().
   };
   enum class Sent : std::uint8_t {
      all,
      part, ///< The client has to read first.
      gone, ///< It never will.
   };

   /// Takes over a non-blocking stream socket. `peer` says who the client is, for people.
   Connection(std::uint64_t id, TarnRegFile::Utils::UnixFdRes fd, std::string peer);
   ~Connection();
   Connection(const Connection&) = delete;
   Connection& operator=(const Connection&) = delete;

   std::uint64_t id() const noexcept { return _id; }
   const std::string& peer() const noexcept { return _peer; }
   const Platform::Metrics::Counter& transactions() const noexcept { return _transactions; }

   int fd() const noexcept { return _fd.fd(); }

   /// Looks whether there is a frame, receiving what is there if need be. Never waits.
   Received receive();
   FrameReader& reader() noexcept { return _reader; }

   Transaction& transaction() noexcept { return _transaction; }

   /// Sends the transaction's response, or as much of it as goes.
   Sent answer();

   /// Whether a response is still to be sent, and sends more of it.
   bool isAnswering() const noexcept { return _sent < _frame.size(); }
   Sent goOn();

private:
   const std::uint64_t _id;
   const TarnRegFile::Utils::UnixFdRes _fd;
   const std::string _peer;
   FrameReader _reader;
   Transaction _transaction;
   std::string _frame; // the response
   std::size_t _sent = 0;
   Platform::Metrics::Counter _transactions;
};

} // namespace Nimbo
