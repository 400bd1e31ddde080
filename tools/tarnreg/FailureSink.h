#pragma once

#include "board/FailureSink.h"

namespace TarnReg {

using Board::FailureSink;

} // namespace TarnReg
