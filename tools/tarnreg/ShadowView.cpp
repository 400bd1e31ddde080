#include "tools/tarnreg/ShadowView.h"

#include <exception>
#include <stdexcept>

#include <fmt/format.h>

#include "TarnRegFile/RegisterFileChecker.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "tools/tarnreg/Selection.h"

namespace TarnReg {

using TarnRegFile::Sable::ShadowClient;
using TarnRegFile::Sable::ShadowError;

namespace {

/// A device that is only its register list. None of the verbs accesses it.
class ListOnly : public TarnRegFile::BaseTransportMethodImpl {
public:
   explicit ListOnly(const std::string& list) : BaseTransportMethodImpl(list.c_str(), 1, nullptr) {}
   std::uint32_t regRead(const char*) override { throw std::logic_error("no transport"); }
   void regWrite(const char*, std::uint32_t) override { throw std::logic_error("no transport"); }
};

} // namespace

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
   // Loading it would stop the process.
   if (const std::size_t line = TarnRegFile::RegisterFileChecker::stoppingLine(list)) {
      throw Failure(
         ExitCode::general,
         fmt::format("{}:{}: the lower bound of a range is above the upper", list, line));
   }
   const auto method = TarnRegFile::transportMethodFactory(core);
   try {
      method->implPtrIs(new ListOnly(list));
   } catch (const std::exception& error) {
      throw Failure(ExitCode::general,
                    fmt::format("{}: {}; tarnreg check says where", list, error.what()));
   }
   _device = std::make_unique<Device>(method, nullptr);
   _client = onShadow([&] {
      return std::make_unique<ShadowClient>(_loop, _service, core,
                                            method->regFileHelper()->regFilePtr());
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
