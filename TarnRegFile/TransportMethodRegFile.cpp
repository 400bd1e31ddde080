#include "TarnRegFile/TransportMethodRegFile.h"

#include "platform/entity/ValueSyntax.h"

namespace TarnRegFile {

namespace {

constexpr const char* invalidRep = "Invalid string rep for TransportMethodRegFile";
constexpr const char* unknownAlternative =
   "Invalid string rep for TransportMethodRegFile: unknown alternative ";
constexpr std::string_view csvPathKey = "csvPath";
constexpr std::string_view regFileModelKey = "regFileModel";

template <typename T, typename Source>
const T& alternative(const Source& source, std::string_view name) {
   if (const T* held = std::get_if<T>(&source)) {
      return *held;
   }
   throw Platform::RangeError("bad union access: TransportMethodRegFile does not hold " +
                              String(name));
}

} // namespace

TransportMethodRegFile::TransportMethodRegFile(Platform::TextRange& range) {
   Platform::TextRange ahead = range;
   ahead.require("Value(" + Platform::quote(valueTypeName()));
   if (ahead.peek() != ',') {
      // The short form of the default value.
      ahead.consume(")");
      range = ahead;
      return;
   }
   ahead.require(", ");
   const std::size_t equals = ahead.rest().find('=');
   if (equals == std::string_view::npos || equals + 1 == ahead.rest().size()) {
      throw Platform::RangeError(invalidRep);
   }
   const std::string_view key = ahead.rest().substr(0, equals);
   ahead.advance(equals + 1);
   if (key == csvPathKey) {
      _source = Platform::ValueTraits<String>::read(ahead);
   } else if (key == regFileModelKey) {
      _source = Platform::ValueTraits<Ptr<HardwareRegisterFile>>::read(ahead);
   } else {
      throw Platform::RangeError(unknownAlternative + String(key));
   }
   ahead.require(")");
   range = ahead;
}

const String& TransportMethodRegFile::csvPath() const {
   return alternative<String>(_source, csvPathKey);
}

const Ptr<HardwareRegisterFile>& TransportMethodRegFile::regFileModel() const {
   return alternative<Ptr<HardwareRegisterFile>>(_source, regFileModelKey);
}

bool TransportMethodRegFile::isEq(const TransportMethodRegFile& other) const noexcept {
   return _source == other._source;
}

std::strong_ordering operator<=>(const TransportMethodRegFile& a,
                                 const TransportMethodRegFile& b) noexcept {
   return a._source <=> b._source;
}

String TransportMethodRegFile::stringRep() const {
   Platform::RecordWriter writer(valueTypeName());
   if (containsCsvPath()) {
      writer.field(csvPathKey, csvPath());
   } else {
      writer.field(regFileModelKey, regFileModel());
   }
   return writer.done();
}

std::ostream& operator<<(std::ostream& out, const TransportMethodRegFile& regFile) {
   return out << regFile.stringRep();
}

} // namespace TarnRegFile
