#include "TarnRegFile/HandleAccess.h"

namespace TarnRegFile {

HandleAccess::~HandleAccess() = default;

} // namespace TarnRegFile
