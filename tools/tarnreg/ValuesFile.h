#pragma once

#include <string>

namespace TarnReg {

/// Throws Failure (deviceError) when the mock's values file at `path` cannot be used: it or its
/// directory is missing, unreadable, or, with `writing`, not writable. The mock itself would do
/// without it and say nothing. An empty path is none, and fine.
void checkValuesFile(const std::string& path, bool writing);

} // namespace TarnReg
