#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/entity/Export.h"

namespace Platform::Metrics {

/// Where a server listens: a numeric address and a TCP port. A plain value.
class TARN_PLATFORM_API ListenAddress {
public:
   /// Takes "ADDRESS:PORT", "[V6ADDRESS]:PORT", and for the IPv4 loopback "localhost:PORT",
   /// ":PORT" and "PORT"; PORT is 0 to 65535. Throws std::invalid_argument that names `text`.
   explicit ListenAddress(std::string_view text);

   /// Without brackets.
   [[nodiscard]] const std::string& address() const noexcept { return _address; }
   [[nodiscard]] std::uint16_t port() const noexcept { return _port; }
   [[nodiscard]] bool isV6() const noexcept { return _isV6; }

   /// "127.0.0.1:9100" or "[::1]:9100".
   [[nodiscard]] std::string text() const;

private:
   std::string _address = "127.0.0.1";
   std::uint16_t _port = 0;
   bool _isV6 = false;
};

} // namespace Platform::Metrics
