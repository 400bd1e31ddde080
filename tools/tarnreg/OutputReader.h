#pragma once

#include <chrono>

namespace TarnReg {

/// What a verb that prints now and then does while it waits: it looks whether anybody reads what it
/// prints. One who has seen enough, as head does, would otherwise wait for the next change, which
/// may never come.

/// Ends the process by SIGPIPE, as its next line would, if standard output is a pipe that nobody
/// reads any more. Does nothing otherwise, nor where that signal is ignored.
void endWithoutReader();

/// Sleeps that long, and ends the process likewise as soon as nobody reads any more.
void sleepWhileRead(std::chrono::steady_clock::duration duration);

} // namespace TarnReg
