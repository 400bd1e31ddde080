#include "platform/entity/UniqueId.h"

#include <atomic>
#include <cerrno>

#include <pthread.h>
#include <sys/random.h>

#include <fmt/format.h>
#include <google/protobuf/io/coded_stream.h>

#include "platform/entity/Errors.h"
#include "platform/entity/ValueTraits.h"

namespace Platform {

namespace {

constexpr std::uint32_t valueTag = Wire::tagOf(1, Wire::Type::fixed64);

/// The value that the next id gets; 0 when the first one is still to be drawn.
std::atomic<std::uint64_t> nextValue{0};

/// A child that went on where its parent is would give out the same ids.
bool childrenDrawAnew() {
   const int error =
      pthread_atfork(nullptr, nullptr, [] { nextValue.store(0, std::memory_order_relaxed); });
   if (error != 0) {
      throw ErrnoException(error);
   }
   return true;
}

std::uint64_t drawFirst() {
   [[maybe_unused]] static const bool prepared = childrenDrawAnew();
   std::uint64_t value = 0;
   while (value == 0) {
      if (getrandom(&value, sizeof value, 0) != sizeof value) {
         if (errno != EINTR) {
            throw ErrnoException();
         }
         value = 0;
      }
   }
   return value;
}

} // namespace

UniqueId::UniqueId(TextRange& range) : _value(ValueTraits<std::uint64_t>::read(range)) {}

UniqueId UniqueId::fresh() {
   std::uint64_t next = nextValue.load(std::memory_order_relaxed);
   std::uint64_t value = 0;
   do {
      // Also when the numbers have run through: what follows the last one is 0.
      value = next != 0 ? next : drawFirst();
   } while (!nextValue.compare_exchange_weak(next, value + 1, std::memory_order_relaxed));
   return UniqueId(value);
}

String UniqueId::stringRep() const {
   return fmt::format("{:#018x}", _value);
}

std::size_t UniqueId::messageLen() const noexcept {
   return Wire::varintLen(valueTag) + sizeof _value;
}

void UniqueId::writeFields(Wire::OutputStream& stream) const {
   stream.WriteTag(valueTag);
   stream.WriteLittleEndian64(_value);
}

void UniqueId::readMessageField(std::uint32_t tag, Wire::InputStream& stream) {
   if (Wire::fieldOf(tag) == Wire::fieldOf(valueTag)) {
      _value = Wire::readFixed64(tag, stream);
   } else {
      Wire::skipField(tag, stream);
   }
}

} // namespace Platform
