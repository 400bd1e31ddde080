#pragma once

#include <string_view>

#include "platform/entity/Export.h"

namespace Platform {

/// Ends the process because a rule that the program itself must keep was broken.
///
/// Prints "<source>: <function>: assertion failed: <text>" to standard error, hands the three
/// texts to the installed reporter, then aborts. May be called on any thread; never returns and
/// never throws.
[[noreturn]] TARN_PLATFORM_API void
fatalAssertion(std::string_view source, std::string_view function, std::string_view text) noexcept;

/// Told of a fatal assertion before the process aborts. Must not throw.
using FatalReporter = void (*)(std::string_view source, std::string_view function,
                               std::string_view text) noexcept;

/// Installs `reporter` (null for none) and returns the one that was there. The trace facility
/// installs its own when the platform library is loaded, so that a fatal assertion is also in the
/// trace. Any thread.
TARN_PLATFORM_API FatalReporter fatalReporterIs(FatalReporter reporter) noexcept;

} // namespace Platform
