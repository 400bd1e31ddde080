#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "board/TomlTable.h"

namespace Board {

/// The id of the user, or group, that `text` names; a number is the id itself, whether or not
/// somebody has it. Any thread. Throws std::invalid_argument, naming the text, if there is none,
/// and Platform::ErrnoException if the system's lists of them cannot be read.
uid_t userFrom(const std::string& text);
gid_t groupFrom(const std::string& text);

/// The same of a value in a board file: a name, or a number in quotes or without. Throws FileError.
uid_t userFrom(const TomlTable& table, const toml::node& node, std::string_view key);
gid_t groupFrom(const TomlTable& table, const toml::node& node, std::string_view key);

} // namespace Board
