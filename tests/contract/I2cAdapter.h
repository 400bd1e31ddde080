#pragma once

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <map>

#include <fmt/format.h>

#include "TarnRegFile/I2cTransportDescriptor.h"
#include "tests/contract/TransportAdapter.h"
#include "tests/support/KernelI2c.h"

namespace Contract {

/// I2C through the kernel's device, in either flavour: a register map behind the transfers that
/// the stand-in for the kernel's driver is asked for.
class I2cAdapter : public TransportAdapter {
public:
   explicit I2cAdapter(TarnRegFile::I2cFlavour flavour) : TransportAdapter({}), _flavour(flavour) {
      _kernel.onCall = [this](const TestSupport::KernelI2c::Call& call) { _answer(call); };
   }

   Ptr<TransportMethod> open(const TransportMethodRegFile& registers) override {
      auto device = TarnRegFile::transportMethodFactory("device");
      device->fullInit(TarnRegFile::i2cTransportDescriptorFactory(_kernel.path(), 0x50, _flavour),
                       registers);
      return device;
   }

   std::vector<std::string> journal() const override {
      std::vector<std::string> lines;
      for (const auto& call : _kernel.calls) {
         if (call.request == I2C_SMBUS) {
            lines.push_back(fmt::format("{} {:#x} {}", call.readWrite ? "read" : "write",
                                        call.command, fmt::join(call.block, " ")));
         }
      }
      return lines;
   }

   std::uint32_t value(std::uint32_t number) const override {
      const auto found = _registers.find(number);
      return found == _registers.end() ? 0 : found->second;
   }
   void valueIs(std::uint32_t number, std::uint32_t value) override { _registers[number] = value; }
   void goneIs(bool gone) override { _gone = gone; }

private:
   void _answer(const TestSupport::KernelI2c::Call& call) {
      if (call.request != I2C_SMBUS) {
         return;
      }
      if (_gone) {
         _kernel.errors = {ENXIO};
         return;
      }
      if (call.size == I2C_SMBUS_WORD_DATA) {
         const auto number = static_cast<std::uint32_t>(call.command);
         if (call.readWrite == I2C_SMBUS_WRITE) {
            _registers[number] = call.word;
         } else {
            _kernel.word = static_cast<std::uint16_t>(value(number));
         }
         return;
      }
      // Blocks: the register's number in the command and the first byte, values high byte first.
      if (call.readWrite == I2C_SMBUS_WRITE) {
         _pointer = static_cast<std::uint32_t>(call.command) << 8 | call.block[1];
         if (call.block.size() == 6) {
            std::uint32_t written = 0;
            for (std::size_t i = 2; i < 6; ++i) {
               written = written << 8 | call.block[i];
            }
            _registers[_pointer] = written;
         }
      } else {
         for (unsigned i = 0; i < 4; ++i) {
            _kernel.bytes[i] = static_cast<std::uint8_t>(value(_pointer) >> (8 * (3 - i)));
         }
      }
   }

   const TarnRegFile::I2cFlavour _flavour;
   TestSupport::KernelI2c _kernel;
   std::map<std::uint32_t, std::uint32_t> _registers;
   std::uint32_t _pointer = 0;
   bool _gone = false;
};

} // namespace Contract
