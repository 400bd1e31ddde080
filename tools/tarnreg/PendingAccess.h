#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "TarnRegFile/AsyncHelper.h"
#include "TarnRegFile/I2cTransportSornImplSm.h"
#include "tools/tarnreg/AccessError.h"

namespace TarnReg {

/// An access that was begun. When it is done it has a value, of a write 0, or a failure.
struct PendingAccess {
   std::string name;
   bool isDone = false;
   std::uint32_t value = 0;
   std::optional<AccessError> failure;
};

/// Hands the results of an asynchronous transport to those who wait for them. Those of one register
/// arrive in the order in which they were asked for.
class PendingAccesses : public TarnRegFile::AsyncHelperBase {
public:
   /// `bus` is where the device is, for failures.
   PendingAccesses(const Platform::Ptr<TarnRegFile::I2cTransportSornImplSm>& sm, std::string bus)
      : _sm(sm), _bus(std::move(bus)) {}
   ~PendingAccesses() override;

   /// Whose result the next one of that register and kind is.
   void add(bool isRead, const std::shared_ptr<PendingAccess>& access);

   void handleReadResult(const TarnRegFile::String& regName, TarnRegFile::RegAccessResult result,
                         std::uint32_t value) override;
   void handleWriteResult(const TarnRegFile::String& regName,
                          TarnRegFile::RegAccessResult result) override;

private:
   void _done(bool isRead, const std::string& name, TarnRegFile::RegAccessResult result,
              std::uint32_t value);

   const Platform::Ptr<TarnRegFile::I2cTransportSornImplSm> _sm;
   const std::string _bus;
   std::map<std::pair<bool, std::string>, std::deque<std::shared_ptr<PendingAccess>>> _waiting;
};

} // namespace TarnReg
