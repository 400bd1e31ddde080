#include "platform/hardware/SornRequest.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/hardware/private/SornBus.h"

namespace Hardware {

namespace {

constexpr const char* notDescribed = "the request has no operation";
constexpr const char* managerGone = "the access manager of '{}' has gone";
constexpr const char* inFlight = "the request is submitted";
constexpr const char* unknownFlags = "flags {:#x} are not known";

constexpr std::uint8_t shortWrite = 2;
constexpr std::uint8_t fullWidth = 4;

} // namespace

SornRequest::SornRequest(std::shared_ptr<SornBus> bus, std::shared_ptr<SornClient> client,
                         std::chrono::milliseconds timeout)
   : _bus(std::move(bus)), _client(std::move(client)), _timeout(timeout) {}

SornRequest::~SornRequest() {
   beingDestroyedIs();
   _takeBack();
}

const Platform::TypeData& SornRequest::staticType() {
   using Self = SornRequest;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::SornRequest", Node::staticType())
         .attribute<&Self::state, &Self::stateIs>("state")
         .attribute<&Self::status>("status")
         .attribute<&Self::error>("error")
         .attribute<&Self::timeout, &Self::timeoutIs>("timeout")
         .build();
   return type;
}

void SornRequest::timeoutIs(std::uint32_t milliseconds) {
   const std::chrono::milliseconds timeout(milliseconds);
   if (_timeout != timeout) {
      _timeout = timeout;
      publish(timeoutAttr);
   }
}

void SornRequest::makeReadOp(std::uint64_t address, std::uint32_t& data, ReadByteSwap swap,
                             std::uint8_t flags) {
   SornOp op;
   op.opcode = SornOp::Opcode::read;
   op.size = fullWidth;
   op.mostSignificantFirst = swap == ReadByteSwap::swap;
   _describe(op, address, flags, &data);
}

void SornRequest::makeWriteOp(std::uint64_t address, std::uint32_t value, WriteByteSwap swap,
                              std::uint8_t flags) {
   SornOp op;
   op.opcode = SornOp::Opcode::write;
   op.size = fullWidth;
   op.mostSignificantFirst = swap == WriteByteSwap::swap;
   op.value = value;
   _describe(op, address, flags, nullptr);
}

void SornRequest::makeWriteOp(std::uint64_t address, std::uint16_t value, WriteByteSwap swap,
                              std::uint8_t flags) {
   SornOp op;
   op.opcode = SornOp::Opcode::write;
   op.size = shortWrite;
   op.mostSignificantFirst = swap == WriteByteSwap::swap;
   op.value = value;
   _describe(op, address, flags, nullptr);
}

void SornRequest::_describe(SornOp op, std::uint64_t address, std::uint8_t flags,
                            std::uint32_t* data) {
   if (_state == SornRequestState::submitted) {
      // Also once it has ended: nobody could submit what is described now.
      Platform::throwError(EBUSY, inFlight);
   }
   if (flags != 0) {
      throw Platform::RangeError(fmt::format(unknownFlags, flags));
   }
   op.addressIs(address);
   _op = op;
   _data = data;
   _isDescribed = true;
}

void SornRequest::stateIs(SornRequestState state) {
   if (state == _state) {
      if (state == SornRequestState::idle) {
         _takeBack(); // what was described but not submitted
      }
      return;
   }
   // Whoever hears of a change may let the request go.
   const Platform::Ptr<SornRequest> self(this);
   if (state == SornRequestState::submitted) {
      _submit();
   } else {
      _takeBack();
   }
   try {
      store(_state, state, stateAttr);
   } catch (...) {
      _statusFollows();
      throw;
   }
   _statusFollows();
}

/// Whoever heard of the state may have changed it again.
void SornRequest::_statusFollows() {
   if (_state == SornRequestState::idle) {
      store(_status, SornStatus::idle, statusAttr);
   } else if (_job) {
      store(_status, SornStatus::pending, statusAttr);
   }
}

void SornRequest::_submit() {
   if (!_isDescribed) {
      Platform::throwError(EINVAL, notDescribed);
   }
   if (_bus->isStopped()) {
      Platform::throwError(ESHUTDOWN, fmt::format(managerGone, _bus->name()));
   }
   const auto job = std::make_shared<SornJob>();
   job->op = _op;
   if (_timeout.count() > 0) {
      job->deadline = std::chrono::steady_clock::now() + _timeout;
   }
   _bus->submit(_client, job);
   job->request = this;
   _job = job;
   _error = 0;
}

void SornRequest::_takeBack() noexcept {
   if (_job) {
      _bus->abandon(*_job);
      _job.reset();
   }
   _data = nullptr;
   _isDescribed = false;
}

void SornRequest::_ended(SornStatus status, std::int32_t error, std::uint32_t value) {
   const Platform::Ptr<SornRequest> self(this);
   _job.reset();
   _isDescribed = false;
   _error = error;
   if (std::uint32_t* const data = std::exchange(_data, nullptr);
       data && status == SornStatus::success) {
      *data = value;
   }
   store(_status, status, statusAttr);
}

} // namespace Hardware
