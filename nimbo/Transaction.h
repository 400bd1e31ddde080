#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "nimbo/AddressWord.h"
#include "nimbo/Flow.h"
#include "nimbo/smbus.pb.h"

namespace Nimbo {

class Bus;
class BusTable;
class Connection;

/// What a client asked for in one frame, how far that has come, and the response that grows with
/// it. One is part of each connection and used again and again.
///
/// Used by one thread at a time, by whoever has the connection.
class Transaction {
public:
   /// More than a frame of requests that do anything can hold, and what one response may carry.
   static constexpr int mostRequests = 4096;
   static constexpr std::size_t longestRead = 8192;  // the system's limit for an I2C message
   static constexpr std::size_t longestWrite = 8192; // the offset's bytes included
   static constexpr std::size_t mostReadInAll = 0x10000;

   explicit Transaction(Connection& connection) : _connection(connection) {}
   Transaction(const Transaction&) = delete;
   Transaction& operator=(const Transaction&) = delete;

   /// Takes over the message of a frame; false if it is none.
   [[nodiscard]] bool parse(std::span<const std::uint8_t> payload);

   /// Finds the bus of every request, and checks all that can be checked before anything is done.
   /// If something is wrong the transaction has failed, and is over.
   void plan(std::shared_ptr<const BusTable> buses);

   /// The bus that the next request is for; null once the transaction is over.
   Bus* bus() const noexcept { return _next < _steps.size() ? _steps[_next].bus : nullptr; }

   /// The buses that it was planned with.
   const std::shared_ptr<const BusTable>& buses() const noexcept { return _buses; }

   /// How many requests from the next one on are for the same bus.
   std::size_t run() const noexcept;

   // The next request.
   std::size_t index() const noexcept { return _next; }
   const Smbus::Request& request() const { return _request.requests(static_cast<int>(_next)); }
   const AddressWord& where() const noexcept { return _steps[_next].where; }

   /// The next request in words: "read of 4 bytes, bus 3 'main', device 0x50, offset 0x12".
   std::string shown() const;

   /// Puts a response of `size` bytes, to be filled, in the place of the next request.
   std::span<std::uint8_t> responseNew(std::size_t size);

   /// The next request has been done.
   void done() noexcept { ++_next; }

   /// The next request failed, and with it the transaction.
   void fail(std::string_view reason);

   bool failed() const noexcept { return _response.failed(); }
   const std::string& error() const noexcept { return _response.error(); }
   std::uint64_t xid() const noexcept { return _request.xid(); }
   std::size_t requests() const noexcept {
      return static_cast<std::size_t>(_request.requests_size());
   }

   /// Puts header and response into `frame`, in place of what it held.
   void response(std::string& frame) const;

   Connection& connection() const noexcept { return _connection; }
   Flow& flow() noexcept { return _flow; }

   /// When the frame had come.
   std::chrono::steady_clock::time_point begin() const noexcept { return _begin; }

   /// Lets go of the buses and, if it was a large one, of its memory.
   void over();

private:
   struct Step {
      Bus* bus = nullptr;
      AddressWord where;
      bool isAddressed = false; // `where` is the request's
   };

   void _check(const Smbus::Request& request, const AddressWord& where, std::size_t& read);

   Connection& _connection;
   Flow _flow;
   std::chrono::steady_clock::time_point _begin;
   Smbus::TransactionRequest _request;
   Smbus::TransactionResponse _response;
   std::shared_ptr<const BusTable> _buses; // keeps the buses of _steps
   std::vector<Step> _steps;
   std::size_t _next = 0;
   bool _isLarge = false; // takes memory that is better given back
};

} // namespace Nimbo
