#pragma once

#include <stdexcept>

namespace TarnReg {

/// An access of the device failed; the text says which and why.
class AccessError : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
};

} // namespace TarnReg
