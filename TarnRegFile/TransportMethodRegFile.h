#pragma once

#include <compare>
#include <ostream>
#include <string_view>
#include <variant>

#include "platform/entity/TextRange.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// Where a device's register list comes from: the path of a CSV file, or a model that the caller
/// has. A plain value. A default-constructed one holds an empty path.
class TARN_API TransportMethodRegFile {
public:
   TransportMethodRegFile() = default;
   explicit TransportMethodRegFile(String csvPath) : _source(std::move(csvPath)) {}
   explicit TransportMethodRegFile(const char* csvPath) : _source(String(csvPath)) {}
   explicit TransportMethodRegFile(Ptr<HardwareRegisterFile> model) : _source(std::move(model)) {}

   /// Reads the string form off the front of `range`; a model is found in the range's directory.
   /// Throws RangeError "Invalid string rep for TransportMethodRegFile", or the same with
   /// ": unknown alternative " and the key, and what reading the value throws; `range` is then
   /// unchanged.
   explicit TransportMethodRegFile(Platform::TextRange& range);

   bool containsCsvPath() const noexcept { return _source.index() == 0; }
   bool containsRegFileModel() const noexcept { return _source.index() == 1; }

   /// The held alternative. Throws RangeError, a bad union access, when it is the other one.
   const String& csvPath() const;
   const Ptr<HardwareRegisterFile>& regFileModel() const;

   /// Whether both hold the same alternative and equal values; models are equal by identity.
   bool isEq(const TransportMethodRegFile& other) const noexcept;
   friend bool operator==(const TransportMethodRegFile& a,
                          const TransportMethodRegFile& b) noexcept {
      return a.isEq(b);
   }

   /// Paths before models; then paths as text, models by identity.
   friend TARN_API std::strong_ordering operator<=>(const TransportMethodRegFile& a,
                                                    const TransportMethodRegFile& b) noexcept;

   /// The string form: Value('TarnRegFile::TransportMethodRegFile', csvPath='...'), or with
   /// regFileModel= and a reference to the model by its name.
   String stringRep() const;
   static std::string_view valueTypeName() noexcept {
      return "TarnRegFile::TransportMethodRegFile";
   }

   /// Writes the string form.
   friend TARN_API std::ostream& operator<<(std::ostream& out,
                                            const TransportMethodRegFile& regFile);

private:
   std::variant<String, Ptr<HardwareRegisterFile>> _source;
};

} // namespace TarnRegFile
