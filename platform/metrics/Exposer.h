#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/entity/Export.h"

namespace Platform::Metrics {

class Registry;

/// Serves what a registry shows over HTTP, at /metrics, in the Prometheus text format: what a
/// program makes of `--metrics ADDRESS:PORT`.
///
/// Owned by the program. Serves on threads of its own until it is destroyed; those threads take
/// no signals of the process, and their first start makes the process ignore SIGPIPE. It keeps
/// serving what is registered even if the registry itself is gone.
class TARN_PLATFORM_API Exposer {
public:
   /// Listens on `address`, in the forms that ListenAddress takes: without an address it is the
   /// loopback; port 0 picks a free one. Throws std::invalid_argument for a text that is none of
   /// these, std::system_error for an address that cannot be listened on (in use, not this
   /// host's, not permitted, or IPv6 while the HTTP server underneath was built without it, which
   /// is EAFNOSUPPORT); both name the text.
   Exposer(const Registry& registry, std::string_view address);
   ~Exposer();

   Exposer(const Exposer&) = delete;
   Exposer& operator=(const Exposer&) = delete;

   /// The port that is listened on.
   [[nodiscard]] std::uint16_t port() const noexcept;

private:
   struct Server;

   const std::unique_ptr<Server> _server;
};

} // namespace Platform::Metrics
