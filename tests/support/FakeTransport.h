#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TarnRegFile/TransportMethodImpl.h"

namespace TestSupport {

/// What was done to a FakeTransport, one line a call, its destruction included. Outlives it.
using Journal = std::vector<std::string>;

/// A transport that journals every call and then does what the test wants: `onAccess` runs inside
/// of each access and may throw. Reads give `value`; block reads count up from it.
class FakeTransport : public TarnRegFile::BaseTransportMethodImpl {
public:
   FakeTransport(const TarnRegFile::Ptr<TarnRegFile::HardwareRegisterFile>& model,
                 std::shared_ptr<Journal> journal, std::uint8_t addrBlockSize = 1)
      : BaseTransportMethodImpl("", addrBlockSize, model), _journal(std::move(journal)) {}

   ~FakeTransport() override {
      _journal->push_back("destroyed");
      if (onDestruction) {
         onDestruction();
      }
   }

   std::uint32_t regRead(const char* regName) override {
      _note("read " + std::string(regName));
      return value;
   }

   void regWrite(const char* regName, std::uint32_t written) override {
      _note("write " + std::string(regName) + " " + std::to_string(written));
   }

   void regReadBlock(const char* regName, std::uint32_t* buffer, std::uint32_t count) override {
      _note("read " + std::string(regName) + " x" + std::to_string(count));
      for (std::uint32_t i = 0; i < count; ++i) {
         buffer[i] = value + i;
      }
   }

   void regWriteBlock(const char* regName, const std::uint32_t* buffer,
                      std::uint32_t count) override {
      std::string line = "write " + std::string(regName) + " x" + std::to_string(count) + ":";
      for (std::uint32_t i = 0; i < count; ++i) {
         line += " " + std::to_string(buffer[i]);
      }
      _note(line);
   }

   std::uint32_t value = 0;
   std::function<void()> onAccess;
   std::function<void()> onDestruction;

private:
   void _note(std::string line) {
      _journal->push_back(std::move(line));
      if (onAccess) {
         onAccess();
      }
   }

   std::shared_ptr<Journal> _journal;
};

} // namespace TestSupport
