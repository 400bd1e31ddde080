#include "board/Accounts.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Board {

namespace {

// The largest number is not an id: system calls take it for "leave it as it is".
constexpr std::uint32_t mostId = std::numeric_limits<std::uint32_t>::max() - 1;

std::optional<std::uint32_t> numberFrom(const std::string& text) {
   std::uint32_t number = 0;
   const char* const end = text.data() + text.size();
   const auto [stop, error] = std::from_chars(text.data(), end, number);
   if (error != std::errc() || stop != end || number > mostId) {
      return std::nullopt;
   }
   return number;
}

/// Looks `name` up with one of the C library's re-entrant functions; null if there is no such.
template <typename Entry, typename LookUp>
const Entry* find(const std::string& name, LookUp lookUp, Entry& entry, std::vector<char>& buffer) {
   constexpr std::size_t usual = 4096;
   constexpr std::size_t most = std::size_t{64} << 20;
   for (buffer.resize(usual);; buffer.resize(buffer.size() * 2)) {
      Entry* found = nullptr;
      const int error = lookUp(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
      if (found) {
         return found;
      }
      // With some of the lists' readers these are ways to say that nobody has the name.
      if (error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM) {
         return nullptr;
      }
      if (error != EINTR && (error != ERANGE || buffer.size() >= most)) {
         throw Platform::ErrnoException(error, fmt::format("looking up '{}'", name));
      }
   }
}

template <typename Id>
Id account(const TomlTable& table, const toml::node& node, std::string_view key,
           Id (*from)(const std::string&)) {
   if (!node.is_integer() && !node.is_string()) {
      table.fail(node.source(), fmt::format("'{}' must be a name or a number", key));
   }
   const std::string text =
      node.is_integer() ? fmt::format("{}", node.as_integer()->get()) : node.as_string()->get();
   try {
      return from(text);
   } catch (const std::invalid_argument& error) {
      table.fail(node.source(), shown(error.what()));
   } catch (const std::system_error& error) {
      table.fail(node.source(), shown(error.what()));
   }
}

} // namespace

uid_t userFrom(const std::string& text) {
   if (const auto number = numberFrom(text)) {
      return *number;
   }
   passwd entry{};
   std::vector<char> buffer;
   if (!find<passwd>(text, ::getpwnam_r, entry, buffer)) {
      throw std::invalid_argument(fmt::format("there is no user '{}'", text));
   }
   return entry.pw_uid;
}

gid_t groupFrom(const std::string& text) {
   if (const auto number = numberFrom(text)) {
      return *number;
   }
   group entry{};
   std::vector<char> buffer;
   if (!find<group>(text, ::getgrnam_r, entry, buffer)) {
      throw std::invalid_argument(fmt::format("there is no group '{}'", text));
   }
   return entry.gr_gid;
}

uid_t userFrom(const TomlTable& table, const toml::node& node, std::string_view key) {
   return account<uid_t>(table, node, key, userFrom);
}

gid_t groupFrom(const TomlTable& table, const toml::node& node, std::string_view key) {
   return account<gid_t>(table, node, key, groupFrom);
}

} // namespace Board
