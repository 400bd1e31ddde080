#pragma once

#include <string>

#include "tools/tarnreg/Console.h"
#include "tools/tarnreg/NumberFormat.h"

namespace TarnReg {

/// What the command line says for every verb.
struct Options {
   std::string file;      ///< --file: the register list
   std::string transport; ///< --transport; empty is the mock
   std::string board;     ///< --board: the board file
   std::string device;    ///< --device: the name of one of its devices
   bool json = false;
   NumberBase base = NumberBase::hex;
   int trace = -1; ///< --trace: level 0 to 9; -1 when not given
   ColorMode color = ColorMode::automatic;
};

} // namespace TarnReg
