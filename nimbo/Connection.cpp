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

bool Connection::take(bool hasHungUp) noexcept {
   if (hasHungUp) {
      _hasHungUp.store(true, std::memory_order_relaxed); // seen with the state
   }
   return (_state.fetch_or(owned | ready, std::memory_order_acq_rel) & owned) == 0;
}

bool Connection::release() noexcept {
   std::uint8_t expected = owned;
   return _state.compare_exchange_strong(expected, 0, std::memory_order_acq_rel);
}

bool Connection::isDrained() const noexcept {
   return _isDrained && !_hasHungUp.load(std::memory_order_relaxed) &&
          _reader.state() == FrameReader::State::partial;
}

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
      // What comes from here on is told anew.
      _state.fetch_and(static_cast<std::uint8_t>(~ready), std::memory_order_acq_rel);
      const std::span<std::uint8_t> space = _reader.space();
      const ::ssize_t count = ::recv(fd(), space.data(), space.size(), MSG_DONTWAIT);
      if (count > 0) {
         _reader.received(static_cast<std::size_t>(count));
         _isDrained = static_cast<std::size_t>(count) < space.size();
         if (isDrained()) {
            return Received::nothing;
         }
      } else if (count < 0 && errno == EAGAIN) {
         _isDrained = true;
         return Received::nothing;
      } else if (count == 0 || errno != EINTR) {
         return Received::end;
      }
   }
}

void Connection::answerIs() {
   _transactions.Inc();
   _requests.Inc(_transaction.requests());
   _transaction.response(_frame);
   _transaction.over();
   _sent = 0;
}

Connection::Sent Connection::send() {
   if (_awaitsRoom) {
      // Room that comes from here on is told anew; so may be input, which is then looked for after
      // this, told or not.
      _state.fetch_and(static_cast<std::uint8_t>(~ready), std::memory_order_acq_rel);
      _isDrained = false;
   }
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
