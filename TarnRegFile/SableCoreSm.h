#pragma once

/// The state machine that keeps shadow registers: the core, and the receiver of its transports'
/// results.
#include "TarnRegFile/CoreSmAsyncHelper.h"
#include "TarnRegFile/CoreSmBase.h"
