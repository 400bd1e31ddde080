#include "tools/tarnreg/PendingAccess.h"

#include <system_error>

#include <fmt/format.h>

#include "tools/tarnreg/Printable.h"

namespace TarnReg {

using TarnRegFile::RegAccessResult;

PendingAccesses::~PendingAccesses() {
   beingDestroyedIs();
}

void PendingAccesses::add(bool isRead, const std::shared_ptr<PendingAccess>& access) {
   _waiting[{isRead, access->name}].push_back(access);
}

void PendingAccesses::handleReadResult(const TarnRegFile::String& regName, RegAccessResult result,
                                       std::uint32_t value) {
   _done(true, regName, result, value);
}

void PendingAccesses::handleWriteResult(const TarnRegFile::String& regName,
                                        RegAccessResult result) {
   _done(false, regName, result, 0);
}

void PendingAccesses::_done(bool isRead, const std::string& name, RegAccessResult result,
                            std::uint32_t value) {
   const auto found = _waiting.find({isRead, name});
   if (found == _waiting.end()) {
      return;
   }
   const std::shared_ptr<PendingAccess> access = std::move(found->second.front());
   found->second.pop_front();
   if (found->second.empty()) {
      _waiting.erase(found);
   }
   if (result == RegAccessResult::Success) {
      access->value = value;
   } else {
      const Hardware::SornRequest& request = *_sm->told()->i2cRequest();
      access->failure.emplace(
         request.status() == Hardware::SornStatus::timedOut ? ExitCode::timeout
                                                            : ExitCode::deviceError,
         fmt::format("cannot {} {}: {}: {}: {}", isRead ? "read" : "write", shownName(name), _bus,
                     Platform::enumString(request.status()),
                     std::generic_category().message(request.error())));
   }
   access->isDone = true;
}

} // namespace TarnReg
