#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

namespace Nimbo {

/// A status document as lines and tables for people. What is not in the document is shown as "-".
/// Nothing that a document may hold steers a terminal.
std::string statusTable(const nlohmann::ordered_json& status);

} // namespace Nimbo
