#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "nimbo/smbus.pb.h"

namespace TestSupport {

/// Stands in for the SMBus proxy daemon: listens at a Unix socket, keeps every request to the byte,
/// and answers as the test says. Runs on a thread of its own.
class ScriptedNimbo {
public:
   /// A request as it came.
   struct Frame {
      std::string header; ///< 4 bytes
      std::string payload;
      Smbus::TransactionRequest request; ///< what `payload` says
   };

   /// What is sent back, piece by piece, and whether the connection is closed behind that.
   struct Answer {
      std::vector<std::string> pieces;
      bool closes = false;
   };

   /// Called on the daemon's thread, one request at a time.
   using Script = std::function<Answer(const Frame&)>;

   /// Answers every read with 4 bytes 1 2 3 4 until told otherwise.
   explicit ScriptedNimbo(const std::string& socketPath);
   ~ScriptedNimbo();
   ScriptedNimbo(const ScriptedNimbo&) = delete;
   ScriptedNimbo& operator=(const ScriptedNimbo&) = delete;

   void scriptIs(Script script);

   /// All requests so far.
   std::vector<Frame> frames() const;
   void clear();

   /// Waits until so many connections have been made since the beginning.
   void connectionsAwait(std::size_t count);

   /// Connections that are open, as far as the daemon knows.
   std::size_t connections() const;

   /// Closes all connections, as a daemon that dies does. New ones are accepted.
   void disconnect();

   /// A good response to a request.
   static Smbus::TransactionResponse response(const Smbus::TransactionRequest& request,
                                              std::string_view data = {"\1\2\3\4", 4});

   /// A frame with the header's fields as they are given.
   static std::string frame(std::uint8_t kind, std::uint32_t length, std::string_view payload);

   /// The frame of a response.
   static std::string frame(const Smbus::TransactionResponse& response);

private:
   void _run();
   void _accept();
   bool _serve(int fd);

   const int _listener;
   const int _wake; // an eventfd
   mutable std::mutex _mutex;
   std::condition_variable _changed;
   Script _script;
   std::vector<Frame> _frames;
   std::vector<int> _connections;
   std::size_t _accepted = 0;
   bool _disconnects = false;
   bool _stops = false;
   std::thread _thread;
};

} // namespace TestSupport
