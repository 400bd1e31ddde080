#include "platform/entity/WireMessage.h"

#include <algorithm>
#include <limits>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

namespace Platform::Detail {

void writeLength(std::size_t length, Wire::OutputStream& stream) {
   stream.WriteVarint64(length);
}

void appendMessage(Bytes& out, std::size_t length, bool isPrefixed, const void* record,
                   void (*write)(const void* record, Wire::OutputStream& stream)) {
   const std::size_t before = out.size();
   const std::size_t added = length + (isPrefixed ? Wire::varintLen(length) : 0);
   out.resize(before + added);
   google::protobuf::io::ArrayOutputStream bytes(out.data() + before, static_cast<int>(added));
   Wire::OutputStream stream(&bytes);
   if (isPrefixed) {
      writeLength(length, stream);
   }
   write(record, stream);
}

std::size_t readBytes(std::span<const std::uint8_t> bytes, void* record,
                      void (*read)(void* record, Wire::InputStream& stream)) {
   // No message is as long as what a stream can count.
   constexpr std::size_t most = std::numeric_limits<int>::max();
   Wire::InputStream stream(bytes.data(), static_cast<int>(std::min(bytes.size(), most)));
   read(record, stream);
   return static_cast<std::size_t>(stream.CurrentPosition());
}

} // namespace Platform::Detail
