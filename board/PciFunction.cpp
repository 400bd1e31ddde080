#include "board/PciFunction.h"

#include <charconv>
#include <cstddef>
#include <cstdint>

#include <fmt/format.h>

namespace Board {

namespace {

constexpr std::size_t domainDigits = 4;
constexpr std::uint32_t maxDevice = 0x1f;
constexpr std::uint32_t maxFunction = 7;

/// Takes a number of that many hexadecimal digits, and what ends it, off the front of `text`.
std::optional<std::uint32_t> take(std::string_view& text, std::size_t digits,
                                  std::string_view end) noexcept {
   std::uint32_t number = 0;
   const std::string_view front = text.substr(0, digits);
   const char* const behind = front.data() + front.size();
   const auto [stop, error] = std::from_chars(front.data(), behind, number, 16);
   if (front.size() != digits || error != std::errc() || stop != behind ||
       !text.substr(digits).starts_with(end)) {
      return std::nullopt;
   }
   text.remove_prefix(digits + end.size());
   return number;
}

} // namespace

std::optional<TarnRegFile::PciAddress> pciFunctionFrom(std::string_view text) noexcept {
   const bool isShort = text.find(':') == text.rfind(':');
   const auto domain = isShort ? 0 : take(text, domainDigits, ":");
   const auto bus = take(text, 2, ":");
   const auto device = take(text, 2, ".");
   const auto function = take(text, 1, "");
   if (!domain || !bus || !device || *device > maxDevice || !function || *function > maxFunction ||
       !text.empty()) {
      return std::nullopt;
   }
   return TarnRegFile::PciAddress{
      static_cast<std::uint16_t>(*domain), static_cast<std::uint16_t>(*bus),
      static_cast<std::uint8_t>(*device), static_cast<std::uint8_t>(*function)};
}

std::string pciFunctionText(const TarnRegFile::PciAddress& address) {
   return fmt::format("{:04x}:{:02x}:{:02x}.{:x}", address.domain, address.bus, address.device,
                      address.function);
}

} // namespace Board
