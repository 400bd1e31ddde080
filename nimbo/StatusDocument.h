#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "nimbo/Server.h"

namespace Nimbo {

/// What the daemon says about itself: one JSON document, described in docs/nimbod.md.
///
/// Owned by the daemon. Any thread.
class StatusDocument {
public:
   static constexpr const char* schema = "nimbod-status/1";

   /// Of connections, so many are described each for itself; the others are only counted.
   static constexpr std::size_t mostConnections = 1000;

   /// `server` has to outlive this. What it serves at `socket` began now.
   StatusDocument(const Server& server, std::string socket, std::size_t maxConnections);

   /// The document as of now, in one line, with a line end.
   [[nodiscard]] std::string text() const;

private:
   const Server& _server;
   const std::string _socket;
   const std::size_t _maxConnections;
   const std::chrono::system_clock::time_point _started = std::chrono::system_clock::now();
   const std::chrono::steady_clock::time_point _since = std::chrono::steady_clock::now();
};

} // namespace Nimbo
