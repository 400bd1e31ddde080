#pragma once

#include <cstdint>
#include <stdexcept>

#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// What a ShadowClient, CoreMonitor or OrderedClient could not do; the text names the core and the
/// register.
class TARN_API ShadowError : public std::runtime_error {
public:
   enum class Kind : std::uint8_t {
      unknownRegister, ///< the register list has no such name
      noValue,         ///< the core is not ready: nothing is known of the register yet
      notPermitted,    ///< this user may not, or the register is not writable
      timedOut,        ///< what was asked for has not been done in time; it stands
      damaged,         ///< a table is damaged, until the core's owner has replaced it
   };

   ShadowError(Kind kind, const String& text) : std::runtime_error(text), _kind(kind) {}
   ~ShadowError() override;

   Kind kind() const noexcept { return _kind; }

private:
   Kind _kind;
};

} // namespace TarnRegFile::Sable
