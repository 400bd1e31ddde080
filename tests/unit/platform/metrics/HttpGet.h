#pragma once

#include <cstdint>
#include <string>

namespace Platform::Metrics::Test {

/// The whole answer to GET `path` from 127.0.0.1:`port`, over a socket of its own. Throws
/// std::system_error if nothing answers.
std::string httpGet(std::uint16_t port, const std::string& path);

/// What is served at /metrics, without what the server says about itself (exposer_...).
std::string exposition(std::uint16_t port);

} // namespace Platform::Metrics::Test
