#include "tools/tarnreg/Device.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include <fmt/format.h>

namespace TarnReg {

using TarnRegFile::HardwareRegister;

Device::Device(const std::string& file, const TransportUrl& url,
               std::shared_ptr<FailureSink> failures)
   : Device(TarnRegFile::transportMethodFactory(file), std::move(failures)) {
   _method->init(url.descriptor(), file);
}

Device::Device(Platform::Ptr<TarnRegFile::TransportMethod> method,
               std::shared_ptr<FailureSink> failures)
   : _method(std::move(method)), _failures(std::move(failures)) {}

Device::~Device() {
   _method->handleDeletion();
}

const std::vector<const HardwareRegister*>& Device::registers() {
   if (_registers.empty()) {
      _method->regFileHelper()->regFilePtr()->forEachRegister(
         [this](const std::string&, const HardwareRegister& record) {
            _registers.push_back(&record);
         });
      std::sort(_registers.begin(), _registers.end(),
                [](const HardwareRegister* a, const HardwareRegister* b) {
                   return std::tie(a->address, a->name) < std::tie(b->address, b->name);
                });
   }
   return _registers;
}

const HardwareRegister* Device::find(std::string_view name) const {
   return _method->regFileHelper()->regFilePtr()->findRegister(name);
}

void Device::access(const char* what, const std::string& name, const std::function<void()>& run) {
   // The flag is sticky, and each access is to be judged by itself.
   if (_method->errorNotifier()) {
      _method->errorNotifier()->errorIs(false);
   }
   run();
   if (_method->errorNotifier() && _method->errorNotifier()->error()) {
      std::string reason = _failures->takeReason();
      throw AccessError(fmt::format("cannot {} {}: {}", what, name,
                                    reason.empty() ? "the access failed" : reason));
   }
}

std::uint32_t Device::read(const std::string& name) {
   std::uint32_t value = 0;
   access("read", name, [&] { value = _method->regRead(name); });
   return value;
}

void Device::write(const std::string& name, std::uint32_t value) {
   access("write", name, [&] { _method->regWrite(name, value); });
}

} // namespace TarnReg
