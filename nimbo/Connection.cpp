#include "nimbo/Connection.h"

#include <sys/socket.h>

#include <cerrno>
#include <span>
#include <utility>

namespace Nimbo {

namespace {

constexpr std::size_t usualFrame = 4096; // a larger response's memory is given back
}

Connection::Connection(std::uint64_t id, TarnRegFile::Utils::UnixFdRes fd, std::string peer)
   : _id(id), _fd(std::move(fd)), _peer(std::move(peer)), _transaction(*this) {}

Connection::~Connection() = default;

Connection::Received Connection::receive() {
   for (;;) {
      switch (_reader.state()) {
      case FrameReader::State::complete:
         return Received::frame;
      case FrameReader::State::wrongKind:
      case FrameReader::State::tooLong:
         return Received::broken;
      case FrameReader::State::partial:
         break;
      }
      const std::span<std::uint8_t> space = _reader.space();
      const ::ssize_t count = ::recv(fd(), space.data(), space.size(), MSG_DONTWAIT);
      if (count > 0) {
         _reader.received(static_cast<std::size_t>(count));
      } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
         return Received::end;
      } else if (errno == EAGAIN) {
         return Received::nothing;
      }
   }
}

Connection::Sent Connection::answer() {
   _transactions.Inc();
   _transaction.response(_frame);
   _sent = 0;
   return goOn();
}

Connection::Sent Connection::goOn() {
   while (isAnswering()) {
      const ::ssize_t count =
         ::send(fd(), _frame.data() + _sent, _frame.size() - _sent, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (count >= 0) {
         _sent += static_cast<std::size_t>(count);
      } else if (errno == EAGAIN) {
         return Sent::part;
      } else if (errno != EINTR) {
         return Sent::gone;
      }
   }
   _sent = 0;
   if (_frame.capacity() > usualFrame) {
      _frame = std::string();
   } else {
      _frame.clear();
   }
   return Sent::all;
}

} // namespace Nimbo
