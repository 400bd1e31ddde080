#pragma once

namespace TarnReg {

/// What the command exits with; scripts rely on these numbers.
enum class ExitCode : int {
   ok = 0,
   general = 1,          ///< anything that has no code of its own
   usage = 2,            ///< the command line is wrong
   unknownName = 3,      ///< a name or pattern that no register has
   refused = 4,          ///< read-only register, or the question was answered with no
   deviceError = 5,      ///< an access failed
   timeout = 6,          ///< it took too long
   readBackMismatch = 7, ///< what was read back is not what was written
};

/// The code of a command of which several parts failed: the first failure's.
constexpr ExitCode worse(ExitCode first, ExitCode second) noexcept {
   return first == ExitCode::ok ? second : first;
}

} // namespace TarnReg
