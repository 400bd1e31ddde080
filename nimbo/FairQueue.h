#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "nimbo/Flow.h"

namespace Nimbo {

class Transaction;

/// Who gets a bus next: of the transactions that wait, the one whose connection has had the fewest
/// requests done of late.
///
/// This is start-time fair queueing with requests as the unit. Each connection's requests on the
/// bus lie one behind the other on a scale of virtual time; a transaction may start where the one
/// before it of the same connection ended, but not before the time that the bus has come to. The
/// one with the earliest start is next, and takes the bus's time there. So a connection that was
/// idle saves nothing up, and one that keeps the bus busy delays another's next transaction by no
/// more than one of its own.
///
/// Not synchronised: the bus's lock is held around every call.
class FairQueue {
public:
   /// `serial` is the bus's own number, never used again.
   explicit FairQueue(std::uint64_t serial) : _serial(serial) {}

   bool empty() const noexcept { return _waiting.empty(); }
   std::size_t size() const noexcept { return _waiting.size(); }

   /// For a transaction of `requests` requests that need not wait: counts it.
   void pass(Flow& flow, std::size_t requests);

   /// `transaction` waits, and must stay where it is until take() gives it.
   void push(Transaction& transaction, Flow& flow, std::size_t requests);

   /// Takes out the next one. Must not be empty.
   Transaction& take() noexcept;

private:
   struct Entry {
      std::uint64_t start;
      std::uint64_t arrival; // among equals the first to come is the first to go
      Transaction* transaction;
   };

   static bool _isLater(const Entry& left, const Entry& right) noexcept {
      return left.start != right.start ? left.start > right.start : left.arrival > right.arrival;
   }

   std::uint64_t _startOf(Flow& flow, std::size_t requests);

   const std::uint64_t _serial;
   std::uint64_t _time = 0;
   std::uint64_t _arrivals = 0;
   std::vector<Entry> _waiting; // a heap, the earliest at the front
};

} // namespace Nimbo
