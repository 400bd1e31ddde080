#pragma once

#include <string>

#include "board/BoardFile.h"
#include "board/TransportUrl.h"
#include "tools/tarnreg/Options.h"

namespace TarnReg {

/// Where a device is: its register list, and how it is reached.
struct DevicePlace {
   std::string list;
   Board::TransportUrl url;
};

/// The board file that --board or else TARN_BOARD names. Throws Failure: usage when neither does,
/// general when the file cannot be used.
Board::BoardFile boardFile(const Options& options);

/// The place that the command line means, be it by --device and a board file or by --file and
/// --transport. Throws Failure: usage for a command line that says too little, too much, or a bad
/// URL; unknownName for a device that the board file does not have; and as boardFile().
DevicePlace devicePlace(const Options& options);

} // namespace TarnReg
