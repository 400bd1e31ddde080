#pragma once

#include <stdexcept>

#include "platform/entity/Export.h"

namespace Platform::Tables {

/// The shared memory of a table holds what no writer has put there: damaged, cut off, or made by
/// somebody else. The only exception that tells of it. Its text names the table and what is wrong.
class TARN_PLATFORM_API CorruptionException : public std::runtime_error {
public:
   using std::runtime_error::runtime_error;
   ~CorruptionException() override;
};

} // namespace Platform::Tables
