#pragma once

namespace Nimbo {

/// Tells the service manager how far the daemon is, if a service manager started it
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
};

} // namespace Nimbo
