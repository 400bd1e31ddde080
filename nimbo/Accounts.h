#pragma once

#include <sys/types.h>

#include <string>

namespace Nimbo {

/// The id of the user, or group, that `text` names; a number is the id itself, whether or not
/// somebody has it. Any thread. Throws std::invalid_argument, naming the text, if there is none,
/// and Platform::ErrnoException if the system's lists of them cannot be read.
uid_t userFrom(const std::string& text);
gid_t groupFrom(const std::string& text);

} // namespace Nimbo
