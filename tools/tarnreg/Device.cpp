#include "tools/tarnreg/Device.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/hardware/SpiEngineSm.h"
#include "platform/hardware/SpiEngineStatus.h"
#include "TarnRegFile/I2cTransportSornImpl.h"
#include "TarnRegFile/RegisterFileChecker.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/SpiTransportDescriptor.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Printable.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

/// What is wrong with the list at `file`, if anything, as the library says it.
std::string listProblem(const std::string& file) {
   try {
      TarnRegFile::regFileHelperFactory(file)->init(file, 1, nullptr);
   } catch (const std::logic_error& error) {
      // The library's number conversions say no more than their own name.
      return fmt::format("{}: {} (a register number or a bound of a range is no decimal number); "
                         "tarnreg check says where",
                         file, error.what());
   } catch (const std::exception& error) {
      const std::string text = error.what();
      // The opening's failure names the file, the content's does not.
      return text.find(file) != std::string::npos
                ? text
                : fmt::format("{}: {}; tarnreg check says where", file, text);
   }
   return "";
}

std::string orElse(const char* variable, const char* otherwise) {
   const char* found = std::getenv(variable);
   return found ? found : otherwise;
}

/// Where the daemon of smbus: was looked for, and what to do about it.
std::string daemonHint() {
   return fmt::format(
      "; looked for at {}/{}: start nimbod, or say with ?socket=PATH, NM_SOCKET_DIR "
      "or NM_SOCKET_FILE where it listens",
      orElse(Board::socketDirectoryVariable, Board::defaultSocketDirectory),
      orElse(Board::socketFileVariable, Board::defaultSocketFile));
}

/// Sets an environment variable back, at the end of the scope, to what it is now.
class EnvironmentKept {
public:
   explicit EnvironmentKept(const char* name) : _name(name) {
      if (const char* value = std::getenv(name)) {
         _value = value;
      }
   }
   ~EnvironmentKept() {
      if (_value) {
         ::setenv(_name, _value->c_str(), 1);
      } else {
         ::unsetenv(_name);
      }
   }
   EnvironmentKept(const EnvironmentKept&) = delete;
   EnvironmentKept& operator=(const EnvironmentKept&) = delete;

private:
   const char* const _name;
   std::optional<std::string> _value;
};

/// Has the process ignore SIGPIPE until the end of the scope.
class SigpipeIgnored {
public:
   SigpipeIgnored() {
      struct sigaction ignore = {};
      ignore.sa_handler = SIG_IGN;
      ::sigaction(SIGPIPE, &ignore, &_before);
   }
   ~SigpipeIgnored() { ::sigaction(SIGPIPE, &_before, nullptr); }
   SigpipeIgnored(const SigpipeIgnored&) = delete;
   SigpipeIgnored& operator=(const SigpipeIgnored&) = delete;

private:
   struct sigaction _before = {};
};

} // namespace

Device::Device(const std::string& file, const Board::TransportUrl& url,
               std::shared_ptr<FailureSink> failures, std::shared_ptr<Board::Platforms> platforms)
   : Device(TarnRegFile::transportMethodFactory(file), std::move(failures)) {
   _platforms = platforms ? std::move(platforms) : std::make_shared<Board::Platforms>();
   // Loading it would stop the process.
   if (const std::size_t line = TarnRegFile::RegisterFileChecker::stoppingLine(file)) {
      throw Failure(
         ExitCode::general,
         fmt::format("{}:{}: the lower bound of a range is above the upper", file, line));
   }
   _open(file, url);
}

void Device::_open(const std::string& file, const Board::TransportUrl& url) {
   _where = url.where();
   // The socket of one device is not to become that of another which names none.
   const EnvironmentKept directory(Board::socketDirectoryVariable);
   const EnvironmentKept socket(Board::socketFileVariable);
   try {
      const auto descriptor = url.descriptor(_platforms.get());
      if (const auto spi = Platform::ptrCast<TarnRegFile::SpiTransportDescriptor>(descriptor)) {
         _spi = Platform::ptrCast<const Hardware::SpiHwAccess>(spi->hwAccess());
      }
      _method->init(descriptor, file);
      if (const auto* sorn = dynamic_cast<TarnRegFile::I2cTransportSornImpl*>(_method->implPtr())) {
         _sorn = sorn->sorn();
         _pending =
            Platform::make<PendingAccesses>(sorn->sm(), std::get<Board::SornAt>(_where).path);
         _method->asyncHelperIs(_pending);
      }
   } catch (const std::exception& error) {
      // List and device are opened in one go; looking at the list alone tells which it was.
      if (const std::string problem = listProblem(file); !problem.empty()) {
         throw Failure(ExitCode::general, problem);
      }
      if (std::string_view(error.what()) == "stoul") {
         throw Failure(ExitCode::general,
                       fmt::format("values file {}: a line does not hold two decimal numbers",
                                   url.valuesFile()));
      }
      throw Failure(
         ExitCode::deviceError,
         fmt::format("{}: {}{}", url.text(), error.what(),
                     std::holds_alternative<Board::SmbusAt>(_where) ? daemonHint() : ""));
   }
}

Device::Device(Platform::Ptr<TarnRegFile::TransportMethod> method,
               std::shared_ptr<FailureSink> failures)
   : _method(std::move(method)), _failures(std::move(failures)) {
   _method->raiseExceptionOnErrorIs(true);
}

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
   const auto notifier = _method->errorNotifierIs(_method->name());
   // A daemon that has gone is a failed access. Output that nobody reads ends the command as usual.
   std::optional<SigpipeIgnored> ignored;
   if (std::holds_alternative<Board::SmbusAt>(_where)) {
      ignored.emplace();
   }
   // The flag is sticky, and each access is to be judged by itself.
   notifier->errorIs(false);
   _failures->takeReason(name);
   errno = 0;
   try {
      run();
   } catch (const Platform::ErrnoException& error) {
      if (!notifier->error()) {
         throw;
      }
      throw _failure(what, name, error.code() ? error.what() : "the access failed",
                     error.code() == std::errc::timed_out ? ExitCode::timeout
                                                          : ExitCode::deviceError);
   }
   if (notifier->error()) {
      throw _failure(what, name, "the access failed", ExitCode::deviceError);
   }
   _send(what, name);
}

std::uint32_t Device::read(const std::string& name) {
   if (isAsync()) {
      return finish(readBegin(name));
   }
   std::uint32_t value = 0;
   _accessRegister("read", name, [&] { value = _method->regRead(name); });
   return value;
}

void Device::write(const std::string& name, std::uint32_t value) {
   const auto write = [&] { _method->regWrite(name, value); };
   if (isAsync()) {
      finish(_begin(false, name, write));
   } else {
      _accessRegister("write", name, write);
   }
}

std::shared_ptr<PendingAccess> Device::readBegin(const std::string& name) {
   return _begin(true, name, [&] { _method->regRead(name); });
}

std::shared_ptr<PendingAccess> Device::_begin(bool isRead, const std::string& name,
                                              const std::function<void()>& run) {
   auto pending = std::make_shared<PendingAccess>();
   pending->name = name;
   try {
      _accessRegister(isRead ? "read" : "write", name, run);
      _pending->add(isRead, pending);
   } catch (const AccessError& error) {
      pending->failure = error;
      pending->isDone = true;
   }
   return pending;
}

std::uint32_t Device::submit(bool isRead, const std::string& name,
                             const std::function<void()>& run) {
   const auto pending = std::make_shared<PendingAccess>();
   pending->name = name;
   access(isRead ? "read" : "write", name, run);
   _pending->add(isRead, pending);
   return finish(pending);
}

std::uint32_t Device::finish(const std::shared_ptr<PendingAccess>& access) {
   // Whether it may take for ever is the access's time-out to say.
   constexpr std::chrono::hours aDay(24);
   while (!access->isDone) {
      _platforms->eventLoop().runUntil([&] { return access->isDone; }, aDay);
   }
   if (access->failure) {
      throw *access->failure;
   }
   return access->value;
}

void Device::accessTimeoutIs(std::uint32_t milliseconds) {
   if (_sorn) {
      _sorn->timeoutIs(milliseconds);
   }
}

std::uint32_t Device::valueMask(const HardwareRegister& record) const noexcept {
   constexpr std::uint32_t all = 0xFFFFFFFF;
   const auto* i2c = std::get_if<Board::I2cAt>(&_where);
   if (i2c && i2c->flavour == TarnRegFile::I2cFlavour::dataBlock) {
      return __builtin_bswap32(all >> (record.accessWidth - record.width) % 32);
   }
   return record.width >= 32 ? all : (1U << record.width) - 1;
}

bool Device::readsWholeWords() const noexcept {
   return std::holds_alternative<Board::SornAt>(_where);
}

std::uint32_t Device::writtenPart(const HardwareRegister& record,
                                  std::uint32_t value) const noexcept {
   // Two bytes are written of it, and come first when four are read.
   constexpr std::uint32_t shortWidth = 16;
   return readsWholeWords() && record.width == shortWidth ? value >> shortWidth : value;
}

void Device::requireReadable() const {
   if (std::holds_alternative<Board::SpiAt>(_where)) {
      throw Failure(ExitCode::deviceError, "a device behind SPI can only be written, not read");
   }
}

bool Device::hasBlockAccess() const noexcept {
   return std::holds_alternative<Board::MockAt>(_where) ||
          std::holds_alternative<Board::PciAt>(_where);
}

void Device::_send(const char* what, const std::string& name) {
   if (!_spi || _spi->drain() == 0) {
      return;
   }
   for (const auto& engine : _spi->engines()) {
      if (engine->status()->lastError() != 0) {
         throw _failure(what, name, engine->status()->lastErrorText(), ExitCode::deviceError);
      }
   }
}

void Device::_accessRegister(const char* what, const std::string& name,
                             const std::function<void()>& run) {
   try {
      access(what, name, run);
   } catch (const AccessError&) {
      throw;
   } catch (const std::exception& error) {
      throw _failure(what, name, error.what(), ExitCode::deviceError);
   }
}

AccessError Device::_failure(const char* what, const std::string& name, const std::string& fallback,
                             ExitCode code) {
   const std::string reason = _failures->takeReason(name);
   return {code, fmt::format("cannot {} {}: {}", what, shownName(name),
                             reason.empty() ? fallback : reason)};
}

} // namespace TarnReg
