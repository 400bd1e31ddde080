#include "board/TomlTable.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "board/FileError.h"

namespace Board {

namespace {

constexpr std::size_t maxFileSize = std::size_t{4} << 20;

} // namespace

toml::table tomlFromFile(const std::string& path) {
   std::error_code ignored;
   // A device or a pipe might never end.
   if (std::filesystem::exists(path, ignored) && !std::filesystem::is_regular_file(path, ignored)) {
      throw FileError(fmt::format("{}: not a regular file", path));
   }
   errno = 0;
   std::ifstream stream(path, std::ios::binary);
   std::string text(maxFileSize + 1, '\0');
   if (stream) {
      stream.read(text.data(), static_cast<std::streamsize>(text.size()));
   }
   if (stream.bad() || !stream.is_open() || (stream.fail() && !stream.eof())) {
      throw FileError(
         fmt::format("{}: {}", path, std::generic_category().message(errno ? errno : EIO)));
   }
   text.resize(static_cast<std::size_t>(stream.gcount()));
   if (text.size() > maxFileSize) {
      throw FileError(fmt::format("{}: larger than {} bytes", path, maxFileSize));
   }
   return tomlFromText(text, path);
}

toml::table tomlFromText(std::string_view text, const std::string& path) {
   try {
      return toml::parse(text, path);
   } catch (const toml::parse_error& error) {
      const auto where = error.source().begin;
      throw FileError(
         fmt::format("{}:{}:{}: {}", path, where.line, where.column, shown(error.description())));
   }
}

std::string shown(std::string_view text) {
   constexpr std::size_t most = 60;
   std::string shown;
   for (const char c : text.substr(0, most)) {
      shown += c >= ' ' && c <= '~' ? c : '?';
   }
   return text.size() > most ? shown + "..." : shown;
}

TomlTable::TomlTable(const std::string& file, const toml::table& table, std::string title)
   : _file(file), _table(table), _title(std::move(title)) {}

void TomlTable::fail(const toml::source_region& where, const std::string& text) const {
   throw FileError(fmt::format("{}:{}:{}: {}", _file, where.begin.line, where.begin.column, text));
}

void TomlTable::fail(const std::string& text) const {
   fail(_table.source(), text);
}

void TomlTable::failAt(std::string_view key, const std::string& text) const {
   const toml::node* node = _table.get(key);
   fail(node ? node->source() : _table.source(), text);
}

const toml::node* TomlTable::take(std::string_view key) {
   _taken.emplace(key);
   return _table.get(key);
}

const toml::node& TomlTable::need(std::string_view key) {
   const toml::node* node = take(key);
   if (!node) {
      fail(fmt::format("{} needs the key '{}'", _title, key));
   }
   return *node;
}

std::uint64_t TomlTable::number(const toml::node& node, std::string_view key, std::uint64_t least,
                                std::uint64_t most) const {
   const auto* integer = node.as_integer();
   if (!integer) {
      fail(node.source(), fmt::format("'{}' must be an integer", shown(key)));
   }
   const std::int64_t value = integer->get();
   if (value < 0 || static_cast<std::uint64_t>(value) < least ||
       static_cast<std::uint64_t>(value) > most) {
      fail(node.source(), fmt::format("'{}' must be from {:#x} to {:#x}", shown(key), least, most));
   }
   return static_cast<std::uint64_t>(value);
}

std::uint64_t TomlTable::number(std::string_view key, std::uint64_t least, std::uint64_t most,
                                std::uint64_t otherwise) {
   const toml::node* node = take(key);
   return node ? number(*node, key, least, most) : otherwise;
}

std::uint64_t TomlTable::neededNumber(std::string_view key, std::uint64_t least,
                                      std::uint64_t most) {
   return number(need(key), key, least, most);
}

std::string TomlTable::text(const toml::node& node, std::string_view key) const {
   const auto* string = node.as_string();
   if (!string) {
      fail(node.source(), fmt::format("'{}' must be a string", key));
   }
   return string->get();
}

bool TomlTable::flag(std::string_view key, bool otherwise) {
   const toml::node* node = take(key);
   if (!node) {
      return otherwise;
   }
   const auto* boolean = node->as_boolean();
   if (!boolean) {
      fail(node->source(), fmt::format("'{}' must be true or false", key));
   }
   return boolean->get();
}

void TomlTable::finish() const {
   for (const auto& [key, node] : _table) {
      if (!_taken.contains(key.str())) {
         fail(key.source(), fmt::format("{} has no key '{}'", _title, shown(key.str())));
      }
   }
}

} // namespace Board
