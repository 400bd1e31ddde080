#pragma once

#include <stdexcept>

namespace Board {

/// A board file that cannot be used: "FILE:LINE:COLUMN: what is wrong", or, when it cannot even be
/// read, "FILE: why".
class FileError : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

} // namespace Board
