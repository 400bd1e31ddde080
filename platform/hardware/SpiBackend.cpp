#include "platform/hardware/SpiBackend.h"

namespace Hardware {

SpiBackend::~SpiBackend() = default;

} // namespace Hardware
