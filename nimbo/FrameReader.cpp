#include "nimbo/FrameReader.h"

#include <algorithm>

namespace Nimbo {

std::size_t FrameReader::length() const noexcept {
   return _buffer[_begin + 1] | std::size_t{_buffer[_begin + 2]} << 8 |
          std::size_t{_buffer[_begin + 3]} << 16;
}

FrameReader::State FrameReader::state() const noexcept {
   const std::size_t have = _end - _begin;
   if (have > 0 && kind() != static_cast<std::uint8_t>(FrameKind::request)) {
      return State::wrongKind;
   }
   if (have < frameHeaderSize) {
      return State::partial;
   }
   if (length() > longestRequest) {
      return State::tooLong;
   }
   return have < frameHeaderSize + length() ? State::partial : State::complete;
}

std::span<std::uint8_t> FrameReader::space() {
   const std::size_t have = _end - _begin;
   if (_begin > 0) {
      std::copy(_buffer.begin() + static_cast<std::ptrdiff_t>(_begin),
                _buffer.begin() + static_cast<std::ptrdiff_t>(_end), _buffer.begin());
      _begin = 0;
      _end = have;
   }
   if (have == 0 && _buffer.size() > startSize) {
      // One long request is no reason to hold on to its size.
      _buffer = std::vector<std::uint8_t>(startSize);
   }
   if (have >= frameHeaderSize) {
      const std::size_t needed = frameHeaderSize + std::min(length(), longestRequest);
      if (needed > _buffer.size()) {
         _buffer.resize(needed);
      }
   }
   return std::span(_buffer).subspan(_end);
}

std::span<const std::uint8_t> FrameReader::payload() const noexcept {
   return std::span(_buffer).subspan(_begin + frameHeaderSize, length());
}

void FrameReader::next() noexcept {
   _begin += frameHeaderSize + length();
   if (_begin == _end) {
      _begin = 0;
      _end = 0;
   }
}

} // namespace Nimbo
