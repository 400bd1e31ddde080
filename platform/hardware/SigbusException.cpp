#include "platform/hardware/SigbusException.h"

namespace Hardware {

SigbusException::SigbusException() : std::runtime_error("Caught SIGBUS") {}

SigbusException::~SigbusException() = default;

} // namespace Hardware
