#include "TarnRegFile/RegAccessResult.h"

namespace TarnRegFile {

RegAccessResult RegAccessResultInstance(std::uint32_t value) {
   return Platform::enumInstance<RegAccessResult>(value);
}

RegAccessResult RegAccessResultInstance(const String& name) {
   return Platform::enumInstance<RegAccessResult>(std::string_view(name));
}

String stringValue(RegAccessResult result) {
   return Platform::enumString(result);
}

std::ostream& operator<<(std::ostream& out, const RegAccessResult& result) {
   return out << stringValue(result);
}

void sequenceToValue(Platform::TextRange& range, RegAccessResult* result) {
   *result = Platform::enumParse<RegAccessResult>(range);
}

} // namespace TarnRegFile
