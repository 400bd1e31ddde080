#include <cstdio>
#include <utility>

#include "platform/entity/Fatal.h"
#include "TarnRegFile/TransportMethodImpl.h"

namespace TarnRegFile {

namespace {

constexpr const char* source = "TarnRegFile/TransportMethodImpl";
constexpr const char* unimplemented = "false && \"Unimplemented\"";

// Spelled out, since compilers differ in how they print a signature.
constexpr const char* readBlockSignature =
   "virtual void TarnRegFile::BaseTransportMethodImpl::regReadBlock(const char*, uint32_t*, "
   "uint32_t)";
constexpr const char* writeBlockSignature =
   "virtual void TarnRegFile::BaseTransportMethodImpl::regWriteBlock(const char*, const "
   "uint32_t*, uint32_t)";

} // namespace

BaseTransportMethodImpl::BaseTransportMethodImpl(const char* csvPath, std::uint8_t addrBlockSize,
                                                 const Ptr<HardwareRegisterFile>& regFile)
   : helper(regFileHelperFactory(csvPath)) {
   helper->init(csvPath, addrBlockSize, regFile);
}

BaseTransportMethodImpl::~BaseTransportMethodImpl() = default;

void BaseTransportMethodImpl::regReadBlock(const char*, std::uint32_t*, std::uint32_t) {
   Platform::fatalAssertion(source, readBlockSignature, unimplemented);
}

void BaseTransportMethodImpl::regWriteBlock(const char*, const std::uint32_t*, std::uint32_t) {
   Platform::fatalAssertion(source, writeBlockSignature, unimplemented);
}

void BaseTransportMethodImpl::asyncHelperIs(Ptr<AsyncHelperBase> newHelper) {
   asyncHelper = std::move(newHelper);
}

Ptr<AsyncHelperBase> BaseTransportMethodImpl::getAsyncHelper() const {
   return asyncHelper;
}

void BaseTransportMethodImpl::dumpAll() {
   const Ptr<RegList> registers = helper->regList();
   for (const auto& [address, element] : *registers) {
      const String& name = element->record().name;
      const HardwareRegister* record = helper->regFilePtr()->findRegister(name);
      const HardwareRegisterType type = record ? record->type : HardwareRegisterType::unknown;
      if (HardwareRegister::regTypeToString(type) == "cfg") {
         continue;
      }
      const std::uint32_t value = regRead(name.c_str());
      std::fprintf(stderr, "%-60s 0x%x\n", name.c_str(), value);
   }
}

} // namespace TarnRegFile
