#include "TarnRegFile/OrderedClient.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/EventLoop.h"
#include "TarnRegFile/CoreClientTable.h"
#include "TarnRegFile/CoreRegisterList.h"
#include "TarnRegFile/OrderedRegisterOp.h"
#include "TarnRegFile/ShadowError.h"

namespace TarnRegFile::Sable {

namespace {

using Kind = ShadowError::Kind;

constexpr const char* wrongCount = "an operation of core '{}' has 1 to {} writes, not {}";
constexpr const char* notBegun = "operation {} of core '{}' has not begun in time: {}";
constexpr const char* notEnded = "operation {} of core '{}' has not ended in time, {} of {} writes "
                                 "are known to be made: {}";

/// Ends a record of writes at the shorter one of its two columns.
std::vector<CoreRegister> writesIn(const OrderedRegisterOp& op) {
   std::vector<CoreRegister> writes;
   const std::size_t count = std::min(op.regKeys().size(), op.regValues().size());
   writes.reserve(count);
   for (std::size_t i = 0; i < count; ++i) {
      writes.emplace_back(op.regKeys()[i], op.regValues()[i]);
   }
   return writes;
}

} // namespace

/// Kept by the client and by a wait under way, which the client need not survive.
class OrderedClient::Impl {
public:
   Impl(Platform::EventLoop& ownLoop, Platform::Tables::TableService& service, const String& core,
        const Ptr<HardwareRegisterFile>& list)
      : loop(ownLoop), coreName(core), monitor(ownLoop, service, core), _registers(core, list),
        _ops(service, core, "ops"), _status(service, core, "ops-status") {}

   void close() {
      _isClosed = true;
      _ops.close();
      _status.close();
   }
   bool isClosed() const noexcept { return _isClosed; }

   UniqueId submit(std::span<const Write> writes) {
      if (writes.empty() || writes.size() > mostWrites) {
         throw Platform::RangeError(fmt::format(wrongCount, coreName, mostWrites, writes.size()));
      }
      OrderedRegisterOp op(UniqueId::fresh());
      op.opSizeIs(static_cast<std::uint8_t>(writes.size()));
      for (std::size_t i = 0; i < writes.size(); ++i) {
         const HardwareRegister& record = _registers.writableRecord(writes[i].regName);
         op.regKeyIs(OpIndex(i), CoreRegisterKey(record.address));
         op.regValueIs(OpIndex(i), writes[i].value);
      }
      _ops.put(op);
      return op.key();
   }

   // An owner begins an operation by making its record of status, extends that after each write,
   // and at the end, when no more is to be told, removes the record of what was asked. So that one
   // is looked at first: if it has gone, what the status has, or has not any more, is the end of
   // it; while the status of before might be taken for the end of an operation that went on. It
   // also shows why it stopped before it removes the record, so the state is looked at last.
   OrderedOutcome outcome(UniqueId id) {
      const std::optional<OrderedRegisterOp> asked = _ops.get(id);
      const std::optional<OrderedRegisterOp> told = _status.get(id);
      OrderedOutcome outcome;
      if (told) {
         outcome.size = told->opSize();
         outcome.writes = writesIn(*told);
      }
      if (asked) {
         outcome.stage = told ? OrderedStage::running : OrderedStage::waiting;
         outcome.size = asked->opSize();
      } else if (told) {
         const bool isComplete = outcome.writes.size() == outcome.size;
         outcome.stage = isComplete ? OrderedStage::complete : OrderedStage::stopped;
         if (const auto state = monitor.state(); !isComplete && state) {
            outcome.lastError = state->lastError;
         }
      }
      return outcome;
   }

   // If the operation is being begun at the moment of its removal, the owner makes the record of
   // status, and then, before each write, finds that the operation has gone. Either the status is
   // seen here, after the removal; or it is made afterwards, and then nothing is written.
   bool takeBack(UniqueId id) { return !_status.get(id) && _ops.del(id) && !_status.get(id); }

   String damage() const {
      for (const String& one : {_ops.damage(), _status.damage(), monitor.damage()}) {
         if (!one.empty()) {
            return one;
         }
      }
      return "";
   }

   String notInTime(UniqueId id, const OrderedOutcome& now) {
      return now.stage == OrderedStage::waiting
                ? fmt::format(notBegun, id.stringRep(), coreName, monitor.summary())
                : fmt::format(notEnded, id.stringRep(), coreName, now.writes.size(), now.size,
                              monitor.summary());
   }

   Platform::EventLoop& loop;
   const String coreName;
   CoreMonitor monitor;

private:
   const CoreRegisterList _registers;
   CoreClientTable<OrderedRegisterOp> _ops;
   CoreClientTable<OrderedRegisterOp> _status;
   bool _isClosed = false;
};

OrderedClient::OrderedClient(Platform::EventLoop& loop, Platform::Tables::TableService& service,
                             const String& coreName, const Ptr<HardwareRegisterFile>& registers)
   : _impl(std::make_shared<Impl>(loop, service, coreName, registers)) {}

OrderedClient::~OrderedClient() {
   _impl->close();
}

const String& OrderedClient::coreName() const noexcept {
   return _impl->coreName;
}

CoreMonitor& OrderedClient::monitor() noexcept {
   return _impl->monitor;
}

const CoreMonitor& OrderedClient::monitor() const noexcept {
   return _impl->monitor;
}

UniqueId OrderedClient::submit(std::span<const Write> writes) {
   return _impl->submit(writes);
}

OrderedOutcome OrderedClient::outcome(UniqueId id) const {
   return _impl->outcome(id);
}

OrderedOutcome OrderedClient::wait(UniqueId id, std::chrono::nanoseconds timeout) const {
   const std::shared_ptr<Impl> impl = _impl; // a handler may end the client
   OrderedOutcome now;
   const auto hasEnded = [&] {
      if (!impl->isClosed()) {
         now = impl->outcome(id);
      }
      return !impl->isClosed() && now.hasEnded();
   };
   if (!impl->loop.runUntil(hasEnded, timeout)) {
      throw ShadowError(Kind::timedOut, impl->notInTime(id, now));
   }
   return now;
}

bool OrderedClient::takeBack(UniqueId id) {
   return _impl->takeBack(id);
}

String OrderedClient::damage() const {
   return _impl->damage();
}

} // namespace TarnRegFile::Sable
