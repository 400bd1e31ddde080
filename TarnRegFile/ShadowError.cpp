#include "TarnRegFile/ShadowError.h"

namespace TarnRegFile::Sable {

ShadowError::~ShadowError() = default;

} // namespace TarnRegFile::Sable
