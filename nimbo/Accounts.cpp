#include "nimbo/Accounts.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Nimbo {

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

} // namespace Nimbo
