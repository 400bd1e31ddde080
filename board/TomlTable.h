#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include <toml++/toml.h>

namespace Board {

/// Reads and parses a board file. Throws FileError when it is no regular file, cannot be read, is
/// larger than 4 MiB, or is no TOML.
toml::table tomlFromFile(const std::string& path);

/// The same for the text of a file; `path` names it in messages.
toml::table tomlFromText(std::string_view text, const std::string& path);

/// Text from a file as a message may show it: not too long, nothing unprintable.
std::string shown(std::string_view text);

/// One table of a board file: its keys are taken one by one, and what nobody took is an error.
/// Everything throws FileError with the place of what is wrong. `file` and `table` must outlive it.
class TomlTable {
public:
   /// `title` is what messages call the table.
   TomlTable(const std::string& file, const toml::table& table, std::string title);

   [[noreturn]] void fail(const toml::source_region& where, const std::string& text) const;

   /// At the table itself.
   [[noreturn]] void fail(const std::string& text) const;

   /// At the key, or at the table when there is none of that name.
   [[noreturn]] void failAt(std::string_view key, const std::string& text) const;

   const std::string& title() const noexcept { return _title; }
   const toml::table& table() const noexcept { return _table; }

   /// The node under a key, or null.
   const toml::node* take(std::string_view key);

   /// The node under a key that has to be there.
   const toml::node& need(std::string_view key);

   std::uint64_t number(const toml::node& node, std::string_view key, std::uint64_t least,
                        std::uint64_t most) const;
   std::uint64_t number(std::string_view key, std::uint64_t least, std::uint64_t most,
                        std::uint64_t otherwise);
   std::uint64_t neededNumber(std::string_view key, std::uint64_t least, std::uint64_t most);
   std::string text(const toml::node& node, std::string_view key) const;
   bool flag(std::string_view key, bool otherwise);

   /// Fails at the first key that nobody took.
   void finish() const;

private:
   const std::string& _file;
   const toml::table& _table;
   const std::string _title;
   std::set<std::string, std::less<>> _taken;
};

} // namespace Board
