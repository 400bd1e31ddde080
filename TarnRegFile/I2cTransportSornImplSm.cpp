#include "TarnRegFile/I2cTransportSornImplSm.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"
#include "platform/trace/Trace.h"

namespace TarnRegFile {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/I2cTransportSornImplSm");

constexpr const char* nullPart = "I2C transport must have a handle of the access manager and a "
                                 "register list";
constexpr const char* nullRequest = "I2C request must not be null";
constexpr const char* tornDown = "the I2C transport has been taken down";
constexpr const char* unexpectedWidth =
   "Unexpected width of register {} (got {} bits, expected at most {} bits)";
constexpr const char* present = "there is already an I2C request in flight of that key, for "
                                "register '{}'";
constexpr const char* notSevenBits = "U7::value < 0 or > 0x7f not allowed";

constexpr unsigned deviceShift = 32;
constexpr std::uint32_t deviceMask = 0x7f;
constexpr std::uint32_t shortWidth = 16;
constexpr std::uint8_t noFlags = 0;

} // namespace

I2cTransportSornImplSm::I2cTransportSornImplSm(const Ptr<Hardware::Sorn>& sorn, std::uint32_t devId,
                                               const Ptr<const RegFileHelper>& regFile)
   : _sorn(sorn), _devId(devId), _regFile(regFile) {
   if (!_sorn || !_regFile) {
      Platform::throwError(EINVAL, nullPart);
   }
}

I2cTransportSornImplSm::~I2cTransportSornImplSm() {
   beingDestroyedIs();
   teardown();
}

const Platform::TypeData& I2cTransportSornImplSm::staticType() {
   using Self = I2cTransportSornImplSm;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::I2cTransportSornImplSm", Node::staticType())
         .attribute<&Self::sorn>("sorn")
         .attribute<&Self::devId>("devId")
         .attribute<&Self::regFile>("regFile")
         .attribute<&Self::asyncHelper, &Self::asyncHelperIs>("asyncHelper")
         .collection<&Self::_keys, &Self::i2cTransportRequest>("i2cTransportRequest")
         .operation<&Self::newTransportRequest>("newTransportRequest", {"regName"})
         .operation<&Self::sornRead>("sornRead", {"regName"})
         .operation<&Self::sornWrite>("sornWrite", {"regName", "value"})
         .build();
   return type;
}

void I2cTransportSornImplSm::asyncHelperIs(const Ptr<AsyncHelperBase>& asyncHelper) {
   store(_asyncHelper, asyncHelper, asyncHelperAttr);
}

Ptr<I2cTransportRequest> I2cTransportSornImplSm::i2cTransportRequest(const Key& key) const {
   const auto found = _requests.find(key);
   return found == _requests.end() ? nullptr : found->second.request;
}

std::vector<I2cTransportSornImplSm::Key> I2cTransportSornImplSm::_keys() const {
   std::vector<Key> keys;
   keys.reserve(_requests.size());
   for (const auto& [key, entry] : _requests) {
      keys.push_back(key);
   }
   return keys;
}

Ptr<I2cTransportRequest>
I2cTransportSornImplSm::i2cTransportRequestIs(const Ptr<Hardware::SornRequest>& i2cRequest,
                                              std::string_view regName, std::uint16_t regAddress,
                                              std::uint32_t regWidth) {
   _checkInService();
   if (!i2cRequest) {
      Platform::throwError(EINVAL, nullRequest);
   }
   const auto [position, isNew] = _requests.try_emplace(i2cRequest);
   if (!isNew) {
      throw Platform::RangeError(fmt::format(present, position->second.request->regName()));
   }
   Ptr<I2cTransportRequest> request;
   try {
      request =
         Platform::make<I2cTransportRequest>(i2cRequest, _devId, regName, regAddress, regWidth);
      position->second.reactor = Platform::OwnedNotifiee<Reactor>(std::in_place, *this, *request);
      position->second.reactor->notifierIs(i2cRequest.get());
      position->second.request = request;
   } catch (...) {
      _requests.erase(position);
      throw;
   }
   publish(i2cTransportRequestAttr, Key(i2cRequest));
   return request;
}

Ptr<I2cTransportRequest> I2cTransportSornImplSm::i2cTransportRequestDel(const Key& key) {
   const auto found = _requests.find(key);
   if (found == _requests.end()) {
      return nullptr;
   }
   const Key held = found->first; // `key` may be the entry's own
   Ptr<I2cTransportRequest> request = std::move(found->second.request);
   _requests.erase(found);
   publish(i2cTransportRequestAttr, held);
   return request;
}

void I2cTransportSornImplSm::i2cTransportRequestDelAll() {
   const Ptr<I2cTransportSornImplSm> held(this);
   // Those that are there now, not what an observer puts in their place.
   for (const Key& key : _keys()) {
      i2cTransportRequestDel(key);
   }
}

Ptr<I2cTransportRequest> I2cTransportSornImplSm::newTransportRequest(const String& regName) {
   _checkInService();
   return _requestFor(regName, _regFile->registerByName(regName));
}

void I2cTransportSornImplSm::_checkInService() const {
   if (_isTornDown) {
      Platform::throwError(ESHUTDOWN, tornDown);
   }
}

Ptr<I2cTransportRequest> I2cTransportSornImplSm::_requestFor(const String& regName,
                                                             const HardwareRegister& record) {
   if (record.width > record.accessWidth) {
      Platform::throwError(EINVAL,
                           fmt::format(unexpectedWidth, regName, record.width, record.accessWidth));
   }
   return i2cTransportRequestIs(_sorn->newRequest(), regName,
                                static_cast<std::uint16_t>(record.address), record.width);
}

std::uint64_t I2cTransportSornImplSm::_accessWord(const I2cTransportRequest& request) const {
   if (static_cast<std::int8_t>(_devId) < 0) {
      throw Platform::RangeError(notSevenBits);
   }
   return std::uint64_t{_devId & deviceMask} << deviceShift | request.regAddress();
}

/// Without what could not be submitted: nobody would ever tell of its end.
template <typename Describe>
void I2cTransportSornImplSm::_submit(const I2cTransportRequest& request, const Describe& describe) {
   const Ptr<Hardware::SornRequest>& i2cRequest = request.i2cRequest();
   try {
      describe(*i2cRequest);
      i2cRequest->stateIs(Hardware::SornRequestState::submitted);
   } catch (...) {
      i2cTransportRequestDel(i2cRequest);
      throw;
   }
}

void I2cTransportSornImplSm::sornRead(const String& regName) {
   _checkInService();
   readResolved(regName, _regFile->registerByName(regName));
}

void I2cTransportSornImplSm::sornWrite(const String& regName, std::uint32_t value) {
   _checkInService();
   writeResolved(regName, _regFile->registerByName(regName), value);
}

void I2cTransportSornImplSm::readResolved(const String& regName, const HardwareRegister& record) {
   const Ptr<I2cTransportSornImplSm> held(this);
   _checkInService();
   const Ptr<I2cTransportRequest> request = _requestFor(regName, record);
   request->opIs(Hardware::SornOp::Opcode::read);
   request->i2cRequest()->stateIs(Hardware::SornRequestState::idle);
   const std::uint64_t address = _accessWord(*request);
   _submit(*request, [&](Hardware::SornRequest& i2cRequest) {
      i2cRequest.makeReadOp(address, request->dataPlace(), Hardware::ReadByteSwap::swap, noFlags);
   });
}

void I2cTransportSornImplSm::writeResolved(const String& regName, const HardwareRegister& record,
                                           std::uint32_t value) {
   const Ptr<I2cTransportSornImplSm> held(this);
   _checkInService();
   const Ptr<I2cTransportRequest> request = _requestFor(regName, record);
   request->opIs(Hardware::SornOp::Opcode::write);
   request->dataIs(value);
   request->i2cRequest()->stateIs(Hardware::SornRequestState::idle);
   const std::uint64_t address = _accessWord(*request);
   _submit(*request, [&](Hardware::SornRequest& i2cRequest) {
      if (request->regWidth() == shortWidth) {
         i2cRequest.makeWriteOp(address, static_cast<std::uint16_t>(value),
                                Hardware::WriteByteSwap::swap, noFlags);
      } else {
         i2cRequest.makeWriteOp(address, value, Hardware::WriteByteSwap::swap, noFlags);
      }
   });
}

void I2cTransportSornImplSm::Reactor::onChange(const Platform::Change& change) {
   if (change.attribute == Hardware::SornRequest::statusAttr) {
      _sm._onStatus(_request);
   }
}

void I2cTransportSornImplSm::_onStatus(I2cTransportRequest& ended) {
   const Hardware::SornStatus status = ended.i2cRequest()->status();
   if (status < Hardware::SornStatus::failed) {
      return;
   }
   // The helper may let all of it go.
   const Ptr<I2cTransportSornImplSm> held(this);
   const Ptr<I2cTransportRequest> request(&ended);
   const RegAccessResult result =
      status == Hardware::SornStatus::success ? RegAccessResult::Success : RegAccessResult::Error;
   TARN_TRACE(traceSource, 9, "onStatus", "I2cTransportSornImplSm::onStatus: regName {}, result {}",
              request->regName(), stringValue(result));
   try {
      _tell(request, result);
   } catch (...) {
      i2cTransportRequestDel(request->i2cRequest());
      throw;
   }
   i2cTransportRequestDel(request->i2cRequest());
}

void I2cTransportSornImplSm::_tell(const Ptr<I2cTransportRequest>& request,
                                   RegAccessResult result) {
   const Ptr<AsyncHelperBase> helper = _asyncHelper;
   if (!helper) {
      return;
   }
   // A helper may run the loop, and be told of another one meanwhile.
   const Ptr<I2cTransportRequest> outer = std::exchange(_told, request);
   const struct Restore {
      Ptr<I2cTransportRequest>& slot;
      const Ptr<I2cTransportRequest>& value;
      ~Restore() { slot = value; }
   } restore{_told, outer};
   switch (request->op()) {
   case Hardware::SornOp::Opcode::read:
      if (result == RegAccessResult::Success) {
         TARN_TRACE(traceSource, 9, "onStatus", "    read: {}", request->data());
      }
      helper->handleReadResult(request->regName(), result, request->data());
      break;
   case Hardware::SornOp::Opcode::write:
      helper->handleWriteResult(request->regName(), result);
      break;
   }
}

void I2cTransportSornImplSm::teardown() noexcept {
   if (std::exchange(_isTornDown, true)) {
      return;
   }
   // All are silenced before the first one is taken back: whoever hears of that finds none left.
   auto requests = std::move(_requests);
   _requests.clear();
   for (auto& [key, entry] : requests) {
      entry.reactor.reset();
   }
   requests.clear();
   _asyncHelper.reset();
   _regFile.reset();
   _sorn.reset();
}

} // namespace TarnRegFile
