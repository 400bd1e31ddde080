#pragma once

#include <cstdint>
#include <memory>

#include "board/Platforms.h"
#include "tools/tarnreg/Console.h"
#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/FailureSink.h"
#include "tools/tarnreg/Options.h"

namespace TarnReg {

/// What there is once in a process, however many command lines it carries out.
struct Session {
   Options options;
   std::shared_ptr<FailureSink> failures;
   std::unique_ptr<Console> console;
   const std::shared_ptr<Board::Platforms> platforms = std::make_shared<Board::Platforms>();
   std::unique_ptr<Device> device;  ///< as soon as it has been opened
   bool isInputScript = false;      ///< standard input is a script, so that nobody can be asked
   std::string valuesFile;          ///< of that device, if it is a mock
   std::uint32_t accessTimeout = 0; ///< of that device, unless a command line says otherwise
};

} // namespace TarnReg
