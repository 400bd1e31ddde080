#include "TarnRegFile/I2cTransportRequest.h"

#include <exception>

#include "platform/entity/TypeBuilder.h"
#include "platform/trace/Trace.h"

namespace TarnRegFile {

namespace {

TARN_TRACE_SOURCE(traceSource, "TarnRegFile/I2cTransportRequest");

} // namespace

I2cTransportRequest::I2cTransportRequest(const Ptr<Hardware::SornRequest>& i2cRequest,
                                         std::uint32_t devId, std::string_view regName,
                                         std::uint16_t regAddress, std::uint32_t regWidth)
   : _i2cRequest(i2cRequest), _regName(regName), _devId(devId), _regWidth(regWidth),
     _regAddress(regAddress) {}

I2cTransportRequest::~I2cTransportRequest() {
   beingDestroyedIs();
   if (_i2cRequest->status() >= Hardware::SornStatus::failed) {
      return; // it has ended, which others may still want to see
   }
   try {
      _i2cRequest->stateIs(Hardware::SornRequestState::idle);
   } catch (const std::exception& failure) {
      // It has been taken back all the same, and there is nobody to throw to.
      TARN_TRACE(traceSource, 0, "~I2cTransportRequest", "an observer failed: {}", failure.what());
   } catch (...) {
      TARN_TRACE(traceSource, 0, "~I2cTransportRequest", "an observer failed: unknown exception");
   }
}

const Platform::TypeData& I2cTransportRequest::staticType() {
   using Self = I2cTransportRequest;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("TarnRegFile::I2cTransportRequest", Node::staticType())
         .attribute<&Self::i2cRequest>("i2cRequest")
         .attribute<&Self::devId>("devId")
         .attribute<&Self::regName>("regName")
         .attribute<&Self::regAddress>("regAddress")
         .attribute<&Self::regWidth>("regWidth")
         .attribute<&Self::data, &Self::dataIs>("data")
         .attribute<&Self::op, &Self::opIs>("op")
         .build();
   return type;
}

void I2cTransportRequest::dataIs(std::uint32_t data) {
   store(_data, data, dataAttr);
}

void I2cTransportRequest::opIs(Hardware::SornOp::Opcode op) {
   store(_op, op, opAttr);
}

} // namespace TarnRegFile
