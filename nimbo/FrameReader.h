#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "nimbo/Frame.h"

namespace Nimbo {

/// Puts the bytes of a connection together to frames. Holds one frame and what came along behind
/// it, never more than `longestRequest` and a header in all.
///
///     reader.received(recv(fd, reader.space().data(), reader.space().size(), 0));
///     while (reader.state() == FrameReader::State::complete) {
///        use(reader.payload());
///        reader.next();
///     }
///
/// One thread at a time. Throws only std::bad_alloc.
class FrameReader {
public:
   /// Clients send lengths modulo 65536: a longer request could only be a stream out of step.
   static constexpr std::size_t longestRequest = 0xffff;

   enum class State : std::uint8_t {
      partial,   ///< More has to be received.
      complete,  ///< There is a frame: see payload().
      wrongKind, ///< What comes next is no request. Nothing more can be read.
      tooLong,   ///< The frame announces more than longestRequest. Nothing more can be read.
   };

   FrameReader() : _buffer(startSize) {}

   State state() const noexcept;

   /// Where to receive to: never empty while the state is partial.
   std::span<std::uint8_t> space();

   /// So many bytes, at most the size of space(), have been put there.
   void received(std::size_t count) noexcept { _end += count; }

   /// The message of the frame, until next() or space(). Only when complete.
   std::span<const std::uint8_t> payload() const noexcept;

   /// Goes on behind the frame. Only when complete.
   void next() noexcept;

   /// Whether nothing at all has come of a next frame.
   bool empty() const noexcept { return _begin == _end; }

   /// The header's two values, as far as they have come; for messages.
   std::uint8_t kind() const noexcept { return _buffer[_begin]; }
   std::size_t length() const noexcept;

private:
   static constexpr std::size_t startSize = 1024;

   std::vector<std::uint8_t> _buffer;
   std::size_t _begin = 0; // of the frame
   std::size_t _end = 0;   // of what was received
};

} // namespace Nimbo
