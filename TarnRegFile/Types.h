#pragma once

#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/hardware/HardwareRegister.h"
#include "platform/hardware/HardwareRegisterFile.h"

/// What the register library takes from the platform under its own names.
namespace TarnRegFile {

using Hardware::HardwareRegister;
using Hardware::HardwareRegisterFile;
using Hardware::HardwareRegisterType;
using Platform::Bytes;
using Platform::Ptr;
using Platform::String;

} // namespace TarnRegFile
