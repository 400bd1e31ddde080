#pragma once

#include <cstdint>
#include <string_view>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Node.h"
#include "platform/hardware/SornOp.h"
#include "platform/hardware/SornRequest.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// One access of the asynchronous I2C transport: the access manager's request, and what the
/// transport knows of it. Made and kept by I2cTransportSornImplSm until its result was told.
///
/// When it goes before its end, it takes the access manager's request back, whoever else holds
/// that one: nothing is written to its `data` afterwards. An entity, held through Ptr, on the
/// access manager's event loop.
class TARN_API I2cTransportRequest : public Platform::Node {
public:
   static constexpr Platform::AttributeId dataAttr{"data"};
   static constexpr Platform::AttributeId opAttr{"op"};

   I2cTransportRequest(const Ptr<Hardware::SornRequest>& i2cRequest, std::uint32_t devId,
                       std::string_view regName, std::uint16_t regAddress, std::uint32_t regWidth);
   ~I2cTransportRequest() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const Ptr<Hardware::SornRequest>& i2cRequest() const noexcept { return _i2cRequest; }
   std::uint32_t devId() const noexcept { return _devId; }

   /// As the caller gave it.
   const String& regName() const noexcept { return _regName; }

   /// The low 16 bits of the register's address.
   std::uint16_t regAddress() const noexcept { return _regAddress; }

   /// Bits of the register that carry meaning.
   std::uint32_t regWidth() const noexcept { return _regWidth; }

   /// What is to be written, or what was read; 0 at first. The access manager stores what it reads
   /// without publishing it: the request's status tells.
   std::uint32_t data() const noexcept { return _data; }
   void dataIs(std::uint32_t data);

   /// The place of `data`, for the access manager.
   std::uint32_t& dataPlace() noexcept { return _data; }

   /// A read at first.
   Hardware::SornOp::Opcode op() const noexcept { return _op; }
   void opIs(Hardware::SornOp::Opcode op);

private:
   const Ptr<Hardware::SornRequest> _i2cRequest;
   const String _regName;
   const std::uint32_t _devId;
   const std::uint32_t _regWidth;
   std::uint32_t _data = 0;
   const std::uint16_t _regAddress;
   Hardware::SornOp::Opcode _op = Hardware::SornOp::Opcode::read;
};

} // namespace TarnRegFile
