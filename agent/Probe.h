#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/Failure.h"
#include "agent/ResultTap.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/Timer.h"

namespace Agent {

/// Reads every register of a device once, through a transport of its own, to learn whether the
/// device can be used before anybody relies on it. The first failure ends it.
///
/// Of a synchronous transport it reads for some milliseconds a turn of the event loop; of an
/// asynchronous one it has a bounded number of reads in flight, and waits for the first answer, and
/// each further one, no longer than `answerTimeout`.
///
/// Owned by who wants to know; destroying it ends it unheard. On the loop's thread. Handlers are
/// called from the loop; the end's may destroy the probe.
class Probe {
public:
   struct Handlers {
      /// The end: null if all registers could be read.
      std::function<void(const Failure* failure)> done;
      /// A register was read; how many are by now.
      std::function<void(const std::string& regName, std::uint32_t value, std::size_t read)> read;
      /// Why the access of a register failed, as far as it is known.
      std::function<std::string(const std::string& regName)> reason;
   };

   /// `transport` is initialised and nobody else's; `regNames` are read in their order.
   Probe(Platform::EventLoop& loop, TarnRegFile::Ptr<TarnRegFile::TransportMethod> transport,
         std::vector<std::string> regNames, std::chrono::milliseconds answerTimeout,
         Handlers handlers);
   ~Probe();
   Probe(const Probe&) = delete;
   Probe& operator=(const Probe&) = delete;

private:
   void _issue();
   void _result(const std::string& regName, bool isSuccess, std::uint32_t value);
   void _end(Failure failure);
   void _finish();

   const TarnRegFile::Ptr<TarnRegFile::TransportMethod> _transport;
   const std::vector<std::string> _regNames;
   const std::chrono::milliseconds _answerTimeout;
   const Handlers _handlers;
   TarnRegFile::Ptr<ResultTap> _tap;
   std::size_t _issued = 0;
   std::size_t _read = 0;
   bool _isFailed = false;
   Failure _failure;
   Platform::Timer _turn;   // to go on, or to tell the end
   Platform::Timer _answer; // that is waited for
};

} // namespace Agent
