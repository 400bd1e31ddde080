#pragma once

namespace TarnSim {

/// Has this process and all that come from it wait, in the ioctls that I2C and SPI device nodes
/// have, for an answer from whoever holds the descriptor returned. All other system calls run as
/// ever. For good: there is no way back. Throws Failure, with what the kernel forbids.
int installFilter();

} // namespace TarnSim
