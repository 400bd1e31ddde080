// Reads any text as the string form of a TransportMethodRegFile and of the values that it is made
// of. What is read must come back the same when it is written and read again; what is not must be
// a RangeError that leaves the text where it was.

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/entity/Directory.h"
#include "platform/entity/Errors.h"
#include "platform/entity/TypeData.h"
#include "platform/entity/Value.h"
#include "TarnRegFile/RegAccessResult.h"
#include "TarnRegFile/TransportMethodRegFile.h"
#include "TarnRegFile/TransportTypes.h"
#include "tests/fuzz/Check.h"

namespace {

using Platform::Directory;
using Platform::RangeError;
using Platform::TextRange;
using TarnRegFile::TransportMethodRegFile;

const auto model = Hardware::hardwareRegisterFileFactory("m");

const Directory directory = [] {
   Directory made;
   made.add(model->name(), model);
   return made;
}();

void regFile(std::string_view text) {
   TextRange range(text, &directory);
   try {
      const TransportMethodRegFile first(range);
      FUZZ_CHECK(text.ends_with(range.rest()));
      const std::string written = first.stringRep();
      TextRange again(written, &directory);
      const TransportMethodRegFile second(again);
      FUZZ_CHECK(second == first);
      FUZZ_CHECK(again.empty());
      FUZZ_CHECK(second.stringRep() == written);
   } catch (const RangeError&) {
      FUZZ_CHECK(range.rest() == text);
   }
}

template <typename T>
void valueOf(std::string_view text) {
   const Platform::ValueType& type = Platform::valueType<T>();
   try {
      const std::string written = type.toString(type.fromText(text, &directory));
      TextRange range(written, &directory);
      FUZZ_CHECK(type.toString(type.parse(range)) == written);
      FUZZ_CHECK(range.empty());
   } catch (const RangeError&) {
      // Not a T.
   }
}

template <typename... T>
void valuesOf(std::string_view text) {
   (valueOf<T>(text), ...);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   const std::string_view text(reinterpret_cast<const char*>(data), size);
   regFile(text);
   valuesOf<bool, std::uint8_t, std::int32_t, std::uint32_t, std::uint64_t, std::int64_t, double,
            Platform::String, Platform::Bytes, TarnRegFile::RegAccessResult,
            TarnRegFile::TransportType, TarnRegFile::HardwareRegisterType,
            TarnRegFile::HardwareRegister, TransportMethodRegFile,
            TarnRegFile::Ptr<TarnRegFile::HardwareRegisterFile>>(text);
   // Quoting must bring back any bytes at all.
   const std::string quoted = Platform::quote(text);
   TextRange range(quoted);
   FUZZ_CHECK(Platform::unquote(range) == text && range.empty());
   return 0;
}
