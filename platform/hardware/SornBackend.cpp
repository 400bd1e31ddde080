#include "platform/hardware/SornBackend.h"

namespace Hardware {

SornBackend::SornBackend() = default;
SornBackend::~SornBackend() = default;

} // namespace Hardware
