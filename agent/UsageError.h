#pragma once

#include <stdexcept>

namespace Agent {

/// The command line asks for something that cannot be: ExitCode::usage. The text is for the user.
class UsageError : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

} // namespace Agent
