#include "platform/metrics/ListenAddress.h"

#include <charconv>
#include <stdexcept>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>

namespace Platform::Metrics {

namespace {

bool isAddress(int family, const std::string& text) noexcept {
   in6_addr any{}; // large enough for either family
   return text.find('\0') == std::string::npos && ::inet_pton(family, text.c_str(), &any) == 1;
}

} // namespace

ListenAddress::ListenAddress(std::string_view text) {
   const auto bad = [&](std::string_view reason) {
      return std::invalid_argument(fmt::format("address '{}': {}", text, reason));
   };
   std::string_view port = text;
   if (const auto colon = text.rfind(':'); colon != std::string_view::npos) {
      const std::string_view address = text.substr(0, colon);
      port = text.substr(colon + 1);
      if (address.starts_with('[') && address.ends_with(']')) {
         _address = address.substr(1, address.size() - 2);
         _isV6 = true;
         if (!isAddress(AF_INET6, _address)) {
            throw bad("what is in the brackets is not an IPv6 address");
         }
      } else if (address.find(':') != std::string_view::npos) {
         throw bad("an IPv6 address goes in brackets, as in [::1]:9100");
      } else if (!address.empty() && address != "localhost") {
         _address = address;
         if (!isAddress(AF_INET, _address)) {
            throw bad("expected ADDRESS:PORT with a numeric address");
         }
      }
   }
   const char* const end = port.data() + port.size();
   const auto [stop, error] = std::from_chars(port.data(), end, _port);
   if (error != std::errc{} || stop != end) {
      throw bad("expected a port, 0 to 65535, at the end");
   }
}

std::string ListenAddress::text() const {
   return _isV6 ? fmt::format("[{}]:{}", _address, _port) : fmt::format("{}:{}", _address, _port);
}

} // namespace Platform::Metrics
