#include "tools/tarnreg/ListOnlyDevice.h"

#include <exception>
#include <stdexcept>

#include <fmt/format.h>

#include "TarnRegFile/I2cFlavour.h"
#include "TarnRegFile/RegisterFileChecker.h"
#include "tools/tarnreg/Failure.h"

namespace TarnReg {

namespace {

class ListOnly : public TarnRegFile::BaseTransportMethodImpl {
public:
   ListOnly(const std::string& list, std::uint8_t addrBlockSize)
      : BaseTransportMethodImpl(list.c_str(), addrBlockSize, nullptr) {}
   std::uint32_t regRead(const char*) override { throw std::logic_error("no transport"); }
   void regWrite(const char*, std::uint32_t) override { throw std::logic_error("no transport"); }
};

} // namespace

std::unique_ptr<Device> listOnlyDevice(const std::string& name, const std::string& list,
                                       std::uint8_t addrBlockSize) {
   // Loading it would stop the process.
   if (const std::size_t line = TarnRegFile::RegisterFileChecker::stoppingLine(list)) {
      throw Failure(
         ExitCode::general,
         fmt::format("{}:{}: the lower bound of a range is above the upper", list, line));
   }
   const auto method = TarnRegFile::transportMethodFactory(name);
   try {
      method->implPtrIs(new ListOnly(list, addrBlockSize));
   } catch (const std::exception& error) {
      const std::string text = error.what();
      // The opening's failure names the file, the content's does not.
      throw Failure(ExitCode::general,
                    text.find(list) != std::string::npos
                       ? text
                       : fmt::format("{}: {}; tarnreg check says where", list, text));
   }
   return std::make_unique<Device>(method, nullptr);
}

std::unique_ptr<Device> listOnlyDevice(const DevicePlace& place) {
   return listOnlyDevice(place.list, place.list, addrBlockSizeOf(place.url));
}

std::uint8_t addrBlockSizeOf(const Board::TransportUrl& url) {
   constexpr std::uint8_t mapped = 4; // words of a space in which bytes have addresses
   if (const auto* i2c = std::get_if<Board::I2cAt>(&url.where())) {
      return TarnRegFile::i2cflavspec::specOf(i2c->flavour).addrBlockSize;
   }
   return std::holds_alternative<Board::MockAt>(url.where()) ||
                std::holds_alternative<Board::PciAt>(url.where())
             ? mapped
             : 1;
}

} // namespace TarnReg
