#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Export.h"
#include "platform/entity/Node.h"
#include "platform/entity/Types.h"
#include "platform/hardware/SornOp.h"
#include "platform/hardware/SornStatus.h"

namespace Hardware {

class SornBus;
struct SornClient;
struct SornJob;

/// One operation that a client asks of the access manager. It is described, then submitted; its end
/// shows as a change of `status`, on the event loop of the access manager:
///
///     request->makeReadOp(address, value, ReadByteSwap::swap, 0);
///     request->stateIs(SornRequestState::submitted);
///     ... status changes: pending, then one of those from 2 on ...
///
/// The client keeps the request: one that is let go, or whose state is set back to idle, is taken
/// back. It may still be done on the bus, if that has begun, but nobody hears of it, and nothing is
/// written to the client's memory. A request whose end was told can be described and submitted
/// anew, after setting its state back.
///
/// An entity, held through Ptr, on the event loop's thread.
class TARN_PLATFORM_API SornRequest : public Platform::Node {
public:
   static constexpr Platform::AttributeId stateAttr{"state"};
   static constexpr Platform::AttributeId statusAttr{"status"};
   static constexpr Platform::AttributeId timeoutAttr{"timeout"};

   /// Made by Sorn::newRequest().
   SornRequest(std::shared_ptr<SornBus> bus, std::shared_ptr<SornClient> client,
               std::chrono::milliseconds timeout);
   ~SornRequest() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   SornRequestState state() const noexcept { return _state; }

   /// `submitted` submits what has been described; `idle` takes it back, with the status then idle
   /// again, and forgets what was described, also when it was not submitted. Setting what is set
   /// already changes nothing else. Throws std::system_error (generic category), and changes
   /// nothing: EINVAL when no operation has been described, ESHUTDOWN when the access
   /// manager has gone.
   void stateIs(SornRequestState state);

   SornStatus status() const noexcept { return _status; }

   /// The errno with which the bus refused the operation; 0 for none.
   std::int32_t error() const noexcept { return _error; }

   /// How long after its submission the request ends as timedOut, in milliseconds; 0 for never.
   /// Begins as its Sorn's.
   std::uint32_t timeout() const noexcept { return static_cast<std::uint32_t>(_timeout.count()); }
   void timeoutIs(std::uint32_t milliseconds);

   // Describe the operation, in place of an earlier description. `address` is the access word: bits
   // 0 to 15 the register, bits 32 to 38 the device. `swap` says in which order the value's bytes
   // are on the wire. There are no `flags` yet: they have to be 0. Throw RangeError for an address
   // or flags with other bits, std::system_error EBUSY (generic) while the state is submitted,
   // though the request may have ended.

   /// Reads 32 bits into `data`, which has to stay in place until the request has ended or been
   /// taken back. It is written just before a status of success is told, and not at all otherwise.
   void makeReadOp(std::uint64_t address, std::uint32_t& data, ReadByteSwap swap,
                   std::uint8_t flags);
   void makeWriteOp(std::uint64_t address, std::uint32_t value, WriteByteSwap swap,
                    std::uint8_t flags);
   void makeWriteOp(std::uint64_t address, std::uint16_t value, WriteByteSwap swap,
                    std::uint8_t flags);

private:
   friend class SornBus;

   void _describe(SornOp op, std::uint64_t address, std::uint8_t flags, std::uint32_t* data);
   void _submit();
   void _takeBack() noexcept;
   void _statusFollows();
   void _ended(SornStatus status, std::int32_t error, std::uint32_t value);

   const std::shared_ptr<SornBus> _bus;
   const std::shared_ptr<SornClient> _client;
   std::shared_ptr<SornJob> _job; // while it is submitted and has not ended
   SornOp _op;
   std::uint32_t* _data = nullptr;
   std::chrono::milliseconds _timeout;
   std::int32_t _error = 0;
   bool _isDescribed = false;
   SornRequestState _state = SornRequestState::idle;
   SornStatus _status = SornStatus::idle;
};

} // namespace Hardware
