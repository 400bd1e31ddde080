#pragma once

#include <chrono>
#include <optional>

namespace Board {

/// Tells the service manager how far a daemon is, if a service manager started it
/// (Type=notify or notify-reload). Otherwise does nothing.
///
/// Owned by the program, on one thread. Throws nothing; what cannot be told is traced.
class ServiceNotifier {
public:
   /// Clients may connect; also behind reloading().
   void ready() const noexcept;

   /// The configuration is being read anew. To be followed by ready() whatever comes of it.
   void reloading() const noexcept;

   /// The daemon is on its way out.
   void stopping() const noexcept;

   /// How long the service manager waits for alive() before it takes the daemon for stuck; none if
   /// it does not watch this process.
   [[nodiscard]] static std::optional<std::chrono::microseconds> watchdogInterval() noexcept;

   /// The daemon still does its work.
   void alive() const noexcept;
};

} // namespace Board
