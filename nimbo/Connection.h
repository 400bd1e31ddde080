#pragma once

#include <atomic>
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
/// Used by one thread at a time, its owner. That is whoever took it when its socket became ready,
/// until that one releases it or leaves it, with its transaction, in the queue of a bus: then it is
/// whoever has the bus. The operations up to take() may be used by any thread.
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
   const Platform::Metrics::Counter& requests() const noexcept { return _requests; }

   int fd() const noexcept { return _fd.fd(); }

   /// The socket has become ready; the client has hung up if it will send nothing any more. True:
   /// the calling thread is the owner now. False: there is an owner, and it will know.
   [[nodiscard]] bool take(bool hasHungUp) noexcept;

   /// There is nothing left to do until the socket becomes ready. False: it has meanwhile, and the
   /// calling thread still is the owner.
   [[nodiscard]] bool release() noexcept;

   /// Whether everything that had come by the time of the latest take() or failed release() has
   /// been received, and there is no frame in it. Never once the client has hung up: the end is
   /// still to be received.
   bool isDrained() const noexcept;

   /// Looks whether there is a frame, receiving what is there if need be. Never waits.
   Received receive();
   FrameReader& reader() noexcept { return _reader; }

   Transaction& transaction() noexcept { return _transaction; }

   /// The transaction is over: makes its response what is to be sent.
   void answerIs();
   bool isAnswering() const noexcept { return _sent < _frame.size(); }

   /// Sends as much of the response as goes.
   Sent send();

   /// Whether the socket is watched for room to send; for who does the watching.
   bool awaitsRoom() const noexcept { return _awaitsRoom; }
   void awaitsRoomIs(bool awaits) noexcept { _awaitsRoom = awaits; }

private:
   const std::uint64_t _id;
   const TarnRegFile::Utils::UnixFdRes _fd;
   const std::string _peer;
   FrameReader _reader;
   Transaction _transaction;
   std::string _frame; // the response
   std::size_t _sent = 0;
   bool _isDrained = false;
   bool _awaitsRoom = false;
   std::atomic<bool> _hasHungUp = false;
   std::atomic<std::uint8_t> _state = 0; // of the bits below
   Platform::Metrics::Counter _transactions;
   Platform::Metrics::Counter _requests;

   static constexpr std::uint8_t owned = 1;
   static constexpr std::uint8_t ready = 2; // there has been an event that nobody acted upon
};

} // namespace Nimbo
