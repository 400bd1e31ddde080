#include "TarnRegFile/SableCore.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <tuple>
#include <vector>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/trace/Trace.h"

namespace TarnRegFile::Sable {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/SableCore");

constexpr const char* missingPart =
   "core '{}' must have a register list and a transport descriptor";

} // namespace

SableCore::SableCore(const String& name, const Ptr<HardwareRegisterFile>& registerFile,
                     const Ptr<BaseTransportDescriptor>& transportDescriptor)
   : SableCoreBase(name, registerFile, transportDescriptor) {
   if (!registerFile || !transportDescriptor) {
      Platform::throwError(EINVAL, fmt::format(missingPart, name));
   }
   struct Entry {
      std::uint32_t address;
      bool isOther; // the list has another name for the address
      bool writable;
      const String* name;
   };
   std::vector<Entry> entries;
   entries.reserve(registerFile->size());
   registerFile->forEachRegister([&](const String& regName, const HardwareRegister& record) {
      const String* known = registerFile->findName(record.address);
      entries.push_back({record.address, !known || *known != regName, record.writable, &regName});
   });
   std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
      return std::tie(a.address, a.isOther, *a.name) < std::tie(b.address, b.isOther, *b.name);
   });
   const Entry* kept = nullptr;
   for (const Entry& entry : entries) {
      if (kept && kept->address == entry.address) {
         TARN_TRACE(traceSource, 1, "SableCore",
                    "{}: register '{}' has the address {:#x} of '{}' and is left out", name,
                    *entry.name, entry.address, *kept->name);
         continue;
      }
      registerDescIs(*entry.name, {entry.address, !entry.writable});
      kept = &entry;
   }
}

SableCore::~SableCore() {
   beingDestroyedIs();
}

const Platform::TypeData& SableCore::staticType() {
   static const Platform::TypeData type =
      Platform::TypeBuilder<SableCore>("TarnRegFile::Sable::SableCore", SableCoreBase::staticType())
         .build();
   return type;
}

Ptr<SableCore> sableCoreFactory(const String& name, const Ptr<HardwareRegisterFile>& registerFile,
                                const Ptr<BaseTransportDescriptor>& transportDescriptor) {
   return Platform::make<SableCore>(name, registerFile, transportDescriptor);
}

Ptr<BaseTransportDescriptor> transportDescriptorOf(const SableCoreBase& core) noexcept {
   return Platform::ptrCast<BaseTransportDescriptor>(core.transportDescriptor());
}

} // namespace TarnRegFile::Sable
