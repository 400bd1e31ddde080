#include "TarnRegFile/PciAddress.h"

#include "platform/entity/ValueSyntax.h"

namespace Platform {

using TarnRegFile::PciAddress;

namespace {

constexpr const char* none = "none";

} // namespace

String ValueTraits<PciAddress>::write(const PciAddress& address) {
   return RecordWriter(name())
      .field("domain", address.domain)
      .field("bus", address.bus)
      .field("device", address.device)
      .field("function", address.function)
      .done();
}

PciAddress ValueTraits<PciAddress>::read(TextRange& range) {
   PciAddress address;
   RecordReader(range, name())
      .field("domain", address.domain)
      .field("bus", address.bus)
      .field("device", address.device)
      .field("function", address.function)
      .done();
   return address;
}

String ValueTraits<std::optional<PciAddress>>::write(const std::optional<PciAddress>& address) {
   return address ? ValueTraits<PciAddress>::write(*address) : none;
}

std::optional<PciAddress> ValueTraits<std::optional<PciAddress>>::read(TextRange& range) {
   if (range.consume(none)) {
      return std::nullopt;
   }
   return ValueTraits<PciAddress>::read(range);
}

} // namespace Platform
