#pragma once

#include <cstdint>
#include <string_view>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Node.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/RegList.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// The register list that one transport works with: loaded from a CSV register list, or adopted
/// from a model that the caller has. Answers which register has a name and which name an address.
///
/// An entity, held through Ptr, used on its own thread. The look-ups need a successful init();
/// on a helper without a model they are a programming error.
class TARN_API RegFileHelper : public Platform::Node {
public:
   static constexpr Platform::AttributeId addrBlockSizeAttr{"addrBlockSize"};
   static constexpr Platform::AttributeId regFilePtrAttr{"regFilePtr"};

   explicit RegFileHelper(const String& name);
   ~RegFileHelper() override;

   /// A new, empty helper.
   static Ptr<RegFileHelper> RegFileHelperIs(const String& name);

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const String& name() const noexcept { return _name; }

   /// Address units per register number.
   std::uint8_t addrBlockSize() const noexcept { return _addrBlockSize; }

   /// The model in use; null until init() has succeeded.
   const Ptr<HardwareRegisterFile>& regFilePtr() const noexcept { return _regFilePtr; }

   /// Loads the file at `csvPath`, or, when that is empty, adopts `regFileModel`: the very object
   /// when its block size is `addrBlockSize`, else a copy with its addresses re-scaled. A model
   /// in use is replaced as a whole, and only when nothing failed; `addrBlockSize` is stored in
   /// any case. Throws std::system_error EINVAL (generic category) "Must provide csvPath or
   /// regFileModel", and what parseCsv() and convertAddrBlockSize() throw.
   void init(const String& csvPath, std::uint8_t addrBlockSize,
             const Ptr<HardwareRegisterFile>& regFileModel);

   /// Reads the register list at `csvPath` into a new model; changes nothing here, and the
   /// model's own block size stays what it is in a new model. Memory: the model plus one line.
   ///
   /// Throws std::system_error: with errno (system category) "Error opening CSV file {}" (also
   /// for a directory or a device node) and "Error reading CSV file {}"; EINVAL
   /// (generic category) "Wrong CSV header", "Invalid address token", "Invalid width token",
   /// "Unsupported register width", and the limits' texts; and std::invalid_argument or
   /// std::out_of_range "stoi". Reversed array bounds stop the process. A line with an unknown
   /// type or missing fields is traced at level 8 and kept.
   Ptr<HardwareRegisterFile> parseCsv(const String& csvPath, std::uint8_t addrBlockSize) const;

   /// A copy of the register's record. A record that equals the empty one counts as missing.
   /// Throws std::system_error ENOENT (generic category), "RegisterFile does not have register
   /// '{}'".
   HardwareRegister findRegisterByName(const String& name) const;

   /// The same record without the copy, for the access path: no allocation unless it throws.
   /// Valid until the model is changed or replaced.
   const HardwareRegister& registerByName(std::string_view name) const;

   /// The name at `address`. Throws std::system_error ENOENT (generic category), "RegisterFile
   /// does not have address: {}".
   String findRegNameByAddr(std::uint32_t address) const;

   bool hasRegName(const String& name) const;

   /// A new list of all registers by address. Of several registers at one address it holds one.
   Ptr<RegList> regList() const;

private:
   const HardwareRegisterFile& _model(const char* function) const;
   void _regFilePtrIs(const Ptr<HardwareRegisterFile>& regFile);

   const String _name;
   std::uint8_t _addrBlockSize = 0;
   Ptr<HardwareRegisterFile> _regFilePtr;
};

/// A new, empty helper.
TARN_API Ptr<RegFileHelper> regFileHelperFactory(const String& name);

} // namespace TarnRegFile
