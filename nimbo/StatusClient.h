#pragma once

#include <chrono>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace Nimbo {

/// The status document of the daemon whose socket for it is at `path`, which may be longer than a
/// socket's address. Waits up to `patience` in all. Throws std::runtime_error, naming the path, if
/// nobody is there, for a daemon that says nothing or refuses, and for what is no document of the
/// schema, or larger than 16 MiB.
nlohmann::ordered_json statusFrom(const std::string& path, std::chrono::milliseconds patience);

} // namespace Nimbo
