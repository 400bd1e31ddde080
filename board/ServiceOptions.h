#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "board/TomlTable.h"

/// What all daemons can be told alike, in files and on command lines.
namespace Board {

/// Where a program's trace goes.
enum class LogTarget : std::uint8_t { standardError, systemLog };

/// What a daemon shows and says. A plain value, and part of each daemon's configuration.
struct ServiceOptions {
   std::string metrics;     ///< address to show metrics at; empty for none
   std::string traceLevels; ///< empty: what the environment says
   LogTarget log = LogTarget::standardError;

   /// Takes the keys `metrics`, `trace` and `log` of a daemon's table, as far as they are there.
   /// Throws FileError.
   void takeFrom(TomlTable& table);
};

/// What a command line says of the same. What it does not say is left to the file.
struct ServiceArguments {
   std::optional<std::string> metrics = std::nullopt;
   std::optional<std::string> traceLevels = std::nullopt;
   std::optional<LogTarget> log = std::nullopt;
   bool check = false; ///< only read the configuration

   /// Replaces in `options` what is said here.
   void replaceIn(ServiceOptions& options) const;
};

// How the values are written. All throw std::invalid_argument that says what is wrong.

/// "3" for all sources, or levels by source as TARN_TRACE has them, in which form it comes back.
std::string traceLevelsFrom(std::string_view text);

/// "stderr" or "syslog".
LogTarget logTargetFrom(std::string_view text);

/// Checks the form "ADDRESS:PORT"; a port alone is of the loopback.
std::string metricsAddressFrom(const std::string& text);

} // namespace Board
