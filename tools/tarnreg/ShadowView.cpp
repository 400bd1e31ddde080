#include "tools/tarnreg/ShadowView.h"

#include "TarnRegFile/RegisterFileHelper.h"
#include "tools/tarnreg/ListOnlyDevice.h"
#include "tools/tarnreg/Selection.h"

namespace TarnReg {

using TarnRegFile::Sable::ShadowClient;
using TarnRegFile::Sable::ShadowError;

ExitCode codeOf(const ShadowError& error) {
   switch (error.kind()) {
   case ShadowError::Kind::unknownRegister:
      return ExitCode::unknownName;
   case ShadowError::Kind::noValue:
      return ExitCode::deviceError;
   case ShadowError::Kind::notPermitted:
      return ExitCode::refused;
   case ShadowError::Kind::timedOut:
      return ExitCode::timeout;
   case ShadowError::Kind::damaged:
      break;
   }
   return ExitCode::general;
}

ShadowView::ShadowView(const Platform::Tables::TableDirectory& directory, const std::string& core,
                       const std::string& list, const Board::TransportUrl& url)
   : _service(_loop, directory), _url(url) {
   _device = listOnlyDevice(core, list, 1);
   _client = onShadow([&] {
      return std::make_unique<ShadowClient>(_loop, _service, core,
                                            _device->method().regFileHelper()->regFilePtr());
   });
}

void ShadowView::requireFits(const TarnRegFile::HardwareRegister& record,
                             std::uint32_t value) const {
   const auto* i2c = std::get_if<Board::I2cAt>(&_url.where());
   // Values of a device that is accessed in blocks are not in the low bits.
   if (!i2c || i2c->flavour != TarnRegFile::I2cFlavour::dataBlock) {
      TarnReg::requireFits(*_device, record, value);
   }
}

} // namespace TarnReg
