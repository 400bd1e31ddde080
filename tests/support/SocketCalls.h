#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace TestSupport {

/// Notes what the code under test asks of its sockets, and lets it fail. Programs that use it link
/// SocketCalls.cpp, whose socket, connect, send, recv, fsync and close take the places of the C
/// library's and then call those. One at a time; calls may come from any thread.
///
/// Calls count from the socket() on that made the descriptor; those for descriptors that were there
/// before, or that were accepted, pass by. The test's own peer is to be made first.
class SocketCalls {
public:
   struct Call {
      std::string name;
      int fd = -1;
      std::size_t length = 0; ///< asked for; of connect, the address's
      int flags = 0;
      long result = 0;
      int error = 0;       ///< errno, if it failed
      std::string address; ///< connect: what it was given, byte by byte
   };

   SocketCalls();
   ~SocketCalls();
   SocketCalls(const SocketCalls&) = delete;
   SocketCalls& operator=(const SocketCalls&) = delete;

   /// The errno values that the next calls of this name fail with, one each; 0 lets one pass.
   void errorsAre(const std::string& name, std::deque<int> errors);

   /// Send and recv move so many bytes at most in one call.
   void mostAtOnceIs(std::size_t bytes);

   /// Called behind each call, on its thread; may throw, through the code under test.
   std::function<void(const Call&)> onCall;

   std::vector<Call> calls() const;
   void clear();

   /// The names of the calls in their order, those that failed with their errno: "send", "recv 4".
   std::vector<std::string> order() const;

   /// The latest descriptor that socket() gave.
   int lastFd() const;

   /// Takes another number for a descriptor of the code under test into account.
   void alsoIs(int fd);

   // For the functions that replace the C library's.
   static SocketCalls* current;
   bool isOurs(int fd) const;
   /// Makes the call unless it is to fail, and notes it.
   long call(Call call, const std::function<long(std::size_t length)>& make);

private:
   mutable std::mutex _mutex;
   std::vector<Call> _calls;
   std::map<std::string, std::deque<int>> _errors;
   std::vector<int> _ours;
   std::size_t _mostAtOnce = SIZE_MAX;
};

} // namespace TestSupport
