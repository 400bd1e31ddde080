#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <unordered_map>

#include "TarnRegFile/Export.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportMethodImpl.h"
#include "TarnRegFile/TransportTypes.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// What a descriptor selects a transport by.
struct TransportKey {
   TransportType type;
   TransportProtocol protocol;
   TransportFlavour flavour;

   friend bool operator==(const TransportKey&, const TransportKey&) = default;
};

struct TransportKeyHash {
   std::size_t operator()(const TransportKey& key) const noexcept {
      return static_cast<std::size_t>(key.type) << 16 |
             static_cast<std::size_t>(key.protocol) << 8 | static_cast<std::size_t>(key.flavour);
   }
};

/// Makes a transport from a descriptor of the kind it needs and a register-list source: a CSV
/// path, empty when a model is given, and a model, null when a path is. The caller owns the result.
/// Throws what the transport's constructor throws.
using TransportImplFactory = std::function<BaseTransportMethodImpl*(
   const Ptr<BaseTransportDescriptor>& descriptor, const String& csvPath,
   const Ptr<HardwareRegisterFile>& regFile)>;

using ImplFactoryMap = std::unordered_map<TransportKey, TransportImplFactory, TransportKeyHash>;

/// Every transport there is, by exact key. Built when the library is loaded, never changed.
TARN_API extern const ImplFactoryMap implFactoryMap;

/// The protocols that deliver their results later.
inline constexpr std::array asyncProtocols{TransportProtocol::sornAsync};

} // namespace TarnRegFile
