#pragma once

#include <stdexcept>

#include "platform/entity/Export.h"

namespace Hardware {

/// A guarded access hit a bus error: the device behind the mapping has gone.
class TARN_PLATFORM_API SigbusException : public std::runtime_error {
public:
   SigbusException();
   ~SigbusException() override;
};

} // namespace Hardware
