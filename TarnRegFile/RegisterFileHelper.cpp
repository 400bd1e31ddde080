#include "TarnRegFile/RegisterFileHelper.h"

#include <cerrno>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/Fatal.h"
#include "platform/entity/TypeBuilder.h"
#include "TarnRegFile/RegisterFileParser.h"

namespace TarnRegFile {

namespace {

// Spelled out here and nowhere else.
constexpr const char* noSource = "Must provide csvPath or regFileModel";
constexpr const char* noRegister = "RegisterFile does not have register '{}'";
constexpr const char* noAddress = "RegisterFile does not have address: {}";

} // namespace

RegFileHelper::RegFileHelper(const String& name) : _name(name) {}

RegFileHelper::~RegFileHelper() {
   beingDestroyedIs();
}

Ptr<RegFileHelper> RegFileHelper::RegFileHelperIs(const String& name) {
   return Platform::make<RegFileHelper>(name);
}

Ptr<RegFileHelper> regFileHelperFactory(const String& name) {
   return RegFileHelper::RegFileHelperIs(name);
}

const Platform::TypeData& RegFileHelper::staticType() {
   using Self = RegFileHelper;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::RegFileHelper", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::addrBlockSize>("addrBlockSize")
         .attribute<&Self::regFilePtr>("regFilePtr")
         .operation<&Self::init>("init", {"csvPath", "addrBlockSize", "regFileModel"})
         .operation<&Self::parseCsv>("parseCsv", {"csvPath", "addrBlockSize"})
         .operation<&Self::findRegisterByName>("findRegisterByName", {"name"})
         .operation<&Self::findRegNameByAddr>("findRegNameByAddr", {"address"})
         .operation<&Self::hasRegName>("hasRegName", {"name"})
         .operation<&Self::regList>("regList")
         .build();
   return type;
}

void RegFileHelper::init(const String& csvPath, std::uint8_t addrBlockSize,
                         const Ptr<HardwareRegisterFile>& regFileModel) {
   store(_addrBlockSize, addrBlockSize, addrBlockSizeAttr);
   if (!csvPath.empty()) {
      _regFilePtrIs(parseCsv(csvPath, addrBlockSize));
   } else if (!regFileModel) {
      Platform::throwError(EINVAL, noSource);
   } else if (regFileModel->addrBlockSize() == addrBlockSize) {
      _regFilePtrIs(regFileModel);
   } else {
      _regFilePtrIs(regFileModel->convertAddrBlockSize(addrBlockSize));
   }
}

Ptr<HardwareRegisterFile> RegFileHelper::parseCsv(const String& csvPath,
                                                  std::uint8_t addrBlockSize) const {
   return RegisterFileParser(csvPath, addrBlockSize).parse();
}

HardwareRegister RegFileHelper::findRegisterByName(const String& name) const {
   return registerByName(name);
}

const HardwareRegister& RegFileHelper::registerByName(std::string_view name) const {
   static const HardwareRegister emptyRecord;
   const HardwareRegister* found = _model("findRegisterByName").findRegister(name);
   // Only a record without a name can equal the empty one: the rest need not be compared.
   if (!found || (found->name.empty() && found->isEq(emptyRecord))) {
      Platform::throwError(ENOENT, fmt::format(noRegister, name));
   }
   return *found;
}

String RegFileHelper::findRegNameByAddr(std::uint32_t address) const {
   const String* name = _model("findRegNameByAddr").findName(address);
   if (!name || name->empty()) {
      Platform::throwError(ENOENT, fmt::format(noAddress, address));
   }
   return *name;
}

bool RegFileHelper::hasRegName(const String& name) const {
   return _model("hasRegName").findRegister(name) != nullptr;
}

Ptr<RegList> RegFileHelper::regList() const {
   Ptr<RegList> list = Platform::make<RegList>();
   _model("regList").forEachRegister(
      [&](const String&, const HardwareRegister& record) { list->regIs(record.address, record); });
   return list;
}

const HardwareRegisterFile& RegFileHelper::_model(const char* function) const {
   if (!_regFilePtr) [[unlikely]] {
      Platform::fatalAssertion("TarnRegFile/RegisterFileHelper", function,
                               "regFilePtr != nullptr && \"look-up before a successful init\"");
   }
   return *_regFilePtr;
}

void RegFileHelper::_regFilePtrIs(const Ptr<HardwareRegisterFile>& regFile) {
   store(_regFilePtr, regFile, regFilePtrAttr);
}

} // namespace TarnRegFile
