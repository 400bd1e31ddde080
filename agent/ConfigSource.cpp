#include "agent/ConfigSource.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include <fmt/format.h>

#include "agent/UsageError.h"
#include "board/Accounts.h"
#include "board/TomlTable.h"

namespace Agent {

namespace {

using Board::shown;
using Board::TomlTable;

constexpr std::uint64_t longest = 3'600'000; // an hour, in milliseconds
constexpr std::uint64_t mostKept = 100'000;

void takeMillis(TomlTable& table, std::string_view key, std::uint64_t least,
                std::chrono::milliseconds& value) {
   value = std::chrono::milliseconds(
      table.number(key, least, longest, static_cast<std::uint64_t>(value.count())));
}

void takeSettings(TomlTable& table, Settings& settings) {
   takeMillis(table, "check_interval_ms", 0, settings.checkInterval);
   takeMillis(table, "retry_first_ms", 1, settings.retryFirst);
   takeMillis(table, "retry_most_ms", 1, settings.retryMost);
   takeMillis(table, "answer_timeout_ms", 1, settings.answerTimeout);
   if (settings.retryMost < settings.retryFirst) {
      table.failAt("retry_most_ms", "'retry_most_ms' must not be less than 'retry_first_ms'");
   }
   takeMillis(table, "audit_interval_ms", 0, settings.auditInterval);
   if (const toml::node* node = table.take("group")) {
      settings.access.group = Board::groupFrom(table, *node, "group");
   }
   settings.access.othersRead = table.flag("others_read", settings.access.othersRead);
   settings.keptOperations = table.number("kept_operations", 1, mostKept, settings.keptOperations);
}

/// A core's name is in the names of its tables.
void addCore(const Board::BoardFile& board, const std::string& name, Config& config) {
   const Board::DeviceEntry* device = board.find(name);
   if (!device) {
      throw std::invalid_argument(
         fmt::format("there is no device '{}' in {}", shown(name), board.path()));
   }
   if (std::any_of(config.cores.begin(), config.cores.end(),
                   [&name](const auto& core) { return core.name == name; })) {
      throw std::invalid_argument(fmt::format("core '{}' is named twice", shown(name)));
   }
   config.cores.push_back(*device);
}

void takeCores(TomlTable& table, const Board::BoardFile& board, Config& config) {
   const toml::node* node = table.take("cores");
   if (!node) {
      return;
   }
   if (!node->is_array()) {
      table.fail(node->source(), "'cores' must be an array of names of devices");
   }
   for (const toml::node& one : *node->as_array()) {
      try {
         addCore(board, table.text(one, "cores"), config);
      } catch (const std::invalid_argument& error) {
         table.fail(one.source(), error.what());
      }
   }
}

Config configOf(const toml::table& root, const Board::BoardFile& board,
                const Arguments& arguments) {
   Config config;
   const std::string& path = board.path();
   if (const toml::node* node = root.get("shadow")) {
      const TomlTable file(path, root, "the file");
      if (!node->is_table()) {
         file.fail(node->source(), "'shadow' must be a table");
      }
      TomlTable table(path, *node->as_table(), "[shadow]");
      takeCores(table, board, config);
      takeSettings(table, config.settings);
      config.takeFrom(table);
      table.finish();
   }
   if (!arguments.cores.empty()) {
      config.cores.clear();
      for (const std::string& name : arguments.cores) {
         try {
            addCore(board, name, config);
         } catch (const std::invalid_argument& error) {
            throw UsageError(error.what());
         }
      }
   }
   if (config.cores.empty()) {
      throw UsageError(fmt::format("no core to look after: neither --core nor 'cores' in [shadow] "
                                   "of {} names one",
                                   path));
   }
   if (arguments.group) {
      config.settings.access.group = arguments.group;
   }
   config.settings.access.othersRead |= arguments.othersRead;
   arguments.replaceIn(config);
   return config;
}

} // namespace

Config configFrom(const Arguments& arguments) {
   const Board::BoardFile board(arguments.boardFile);
   return configOf(Board::tomlFromFile(arguments.boardFile), board, arguments);
}

Config configFrom(std::string_view text, const Arguments& arguments) {
   const Board::BoardFile board(text, arguments.boardFile);
   return configOf(Board::tomlFromText(text, arguments.boardFile), board, arguments);
}

} // namespace Agent
