#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "TarnRegFile/TransportMethod.h"
#include "tools/tarnreg/AccessError.h"
#include "tools/tarnreg/FailureSink.h"
#include "tools/tarnreg/TransportUrl.h"

namespace TarnReg {

/// The opened device: accesses that either work or throw AccessError. A failed read cannot be
/// mistaken for a register that holds 0xFFFFFFFF.
class Device {
public:
   /// Opens the device whose register list is at `file`. Throws what TransportMethod::init()
   /// throws.
   Device(const std::string& file, const TransportUrl& url, std::shared_ptr<FailureSink> failures);

   /// Takes over a device that is initialised already.
   Device(Platform::Ptr<TarnRegFile::TransportMethod> method,
          std::shared_ptr<FailureSink> failures);
   ~Device();

   Device(const Device&) = delete;
   Device& operator=(const Device&) = delete;

   TarnRegFile::TransportMethod& method() noexcept { return *_method; }

   /// Every register by ascending address, and by name where they share one. Made on first use.
   const std::vector<const TarnRegFile::HardwareRegister*>& registers();

   /// The register's record, or null.
   const TarnRegFile::HardwareRegister* find(std::string_view name) const;

   /// Calls `run`, which uses method(), and throws AccessError "cannot <what> <name>: <reason>"
   /// when the library reported a failure.
   void access(const char* what, const std::string& name, const std::function<void()>& run);

   std::uint32_t read(const std::string& name);
   void write(const std::string& name, std::uint32_t value);

private:
   Platform::Ptr<TarnRegFile::TransportMethod> _method;
   std::shared_ptr<FailureSink> _failures;
   std::vector<const TarnRegFile::HardwareRegister*> _registers;
};

} // namespace TarnReg
