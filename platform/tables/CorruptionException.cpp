#include "platform/tables/CorruptionException.h"

namespace Platform::Tables {

CorruptionException::~CorruptionException() = default;

} // namespace Platform::Tables
