#include "TarnRegFile/ShadowClient.h"

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <fmt/format.h>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Timer.h"
#include "platform/tables/CorruptionException.h"
#include "platform/tables/Table.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/ShadowError.h"

namespace TarnRegFile::Sable {

namespace {

using Kind = ShadowError::Kind;
using Platform::Tables::CorruptionException;
using Platform::Tables::MountStatus;
using Platform::Tables::TableRole;
using Value = std::optional<std::uint32_t>;
using Table = Platform::Tables::Table<CoreRegister>;

constexpr const char* unknownRegister = "core '{}' has no register '{}'";
constexpr const char* noValue = "core '{}' is not ready: nothing is known of register '{}' yet";
constexpr const char* notWritable = "register '{}' of core '{}' is not writable";
constexpr const char* notPermitted = "core '{}': {}";
constexpr const char* timedOut = "core '{}' did not set register '{}' to {:#x} in time";
constexpr const char* damaged = "core '{}': {}";

/// How often a table that is not there yet is looked for.
constexpr std::chrono::milliseconds lookInterval{50};

/// Who is told of changes, and what was told last.
struct Follower {
   std::optional<CoreRegisterKey> key; // none: of all
   String regName;
   ShadowClient::Handler handler;
   absl::flat_hash_map<std::uint32_t, std::uint32_t> told;

   /// Whether `value` is news, which it then is no longer.
   bool isNews(CoreRegisterKey of, Value value) {
      const auto last = told.find(of.address());
      if (!value) {
         if (last == told.end()) {
            return false;
         }
         told.erase(last);
         return true;
      }
      if (last != told.end() && last->second == *value) {
         return false;
      }
      told[of.address()] = *value;
      return true;
   }
};

} // namespace

/// Kept by the client and by a telling under way, which the client need not survive.
class ShadowClient::Impl : public std::enable_shared_from_this<Impl>, private Table::Owner {
public:
   Impl(Platform::EventLoop& ownLoop, Platform::Tables::TableService& service, const String& core,
        const Ptr<HardwareRegisterFile>& list)
      : loop(ownLoop), coreName(core), registers(list), _service(service),
        _status(core + "/status", *this), _config(core + "/config", _wishes),
        _looking(ownLoop, [this] { _look(); }) {}
   virtual ~Impl() = default;

   /// The client's end: tells nobody any more.
   void close() {
      _closed = true;
      _followers.clear();
      _looking.cancel();
      _status.unmount();
      _config.unmount();
   }

   Value held(CoreRegisterKey key) { return mountStatus() ? _valueIn(_status, key) : std::nullopt; }

   /// Whether the table of status is there.
   bool mountStatus() { return _mounted(_status, TableRole::reader, false); }

   Value wished(CoreRegisterKey key) {
      return _mounted(_config, TableRole::reader, false) ? _valueIn(_config, key) : std::nullopt;
   }

   void wishIs(const CoreRegister& wish) {
      _change([&] { _config.put(wish); });
   }

   bool wishDel(CoreRegisterKey key) {
      // Without a wish there is nothing to be allowed to change.
      return wished(key) && _change([&] { return _config.del(key).has_value(); });
   }

   const HardwareRegister& record(std::string_view regName) const {
      const HardwareRegister* const found = registers->findRegister(regName);
      if (!found) [[unlikely]] {
         throw ShadowError(Kind::unknownRegister, fmt::format(unknownRegister, coreName, regName));
      }
      return *found;
   }

   Following follow(Follower follower) {
      const auto kept = std::make_shared<Follower>(std::move(follower));
      if (!mountStatus()) {
         _looking.startIn(lookInterval);
      } else if (kept->key) {
         kept->isNews(*kept->key, held(*kept->key));
      } else {
         _guarded(_status, [&] {
            _status.forEach(
               [&](const CoreRegister& found) { kept->isNews(found.key(), found.value()); });
         });
      }
      std::erase_if(_followers, [](const auto& one) { return one.expired(); });
      _followers.push_back(kept);
      return kept;
   }

   String damage() const {
      for (const Table* table : {&_status, &_config}) {
         if (table->mountStatus() == MountStatus::corrupted) {
            return table->statusText();
         }
      }
      return "";
   }

   Platform::EventLoop& loop;
   const String coreName;
   const Ptr<HardwareRegisterFile> registers;

private:
   /// Wishes of other clients are only looked at.
   struct Wishes : Table::Owner {
      virtual ~Wishes() = default;
      void tableChanged(const CoreRegisterKey&) override {}
      void tableMountStatusChanged() override {}
      void tableQuiescedChanged(bool) override {}
   };

   /// Does `work` with a table, and says what goes wrong in this class's way.
   template <typename Work>
   auto _guarded(Table& table, const Work& work) -> decltype(work()) {
      try {
         return work();
      } catch (const CorruptionException& corruption) {
         if (table.mountStatus() != MountStatus::corrupted) {
            table.handleCorruption(corruption.what());
         }
         throw ShadowError(Kind::damaged, fmt::format(damaged, coreName, corruption.what()));
      } catch (const std::system_error& error) {
         if (error.code() == std::errc::permission_denied ||
             error.code() == std::errc::read_only_file_system) {
            throw ShadowError(Kind::notPermitted,
                              fmt::format(notPermitted, coreName, error.what()));
         }
         throw;
      }
   }

   /// Mounts a table, if it is not; false if there is none.
   bool _mounted(Table& table, TableRole role, bool create) {
      if (table.tableMount()) [[likely]] {
         return true;
      }
      if (_closed) {
         return false;
      }
      return _guarded(table, [&] {
         try {
            table.mount(_service, {.role = role, .create = create});
         } catch (const std::system_error& error) {
            if (error.code() != std::errc::no_such_file_or_directory) {
               throw;
            }
            return false;
         }
         return true;
      });
   }

   Value _valueIn(Table& table, CoreRegisterKey key) {
      return _guarded(table, [&]() -> Value {
         const std::optional<CoreRegister> found = table.get(key);
         return found ? Value(found->value()) : std::nullopt;
      });
   }

   /// Does `change` with the table of wishes mounted as a writer.
   template <typename Change>
   auto _change(const Change& change) -> decltype(change()) {
      if (_config.role() != TableRole::writer) {
         // It is no loss if this fails: whoever wants to look mounts it as a reader again.
         _config.unmount();
         _guarded(_config, [&] { _config.mount(_service, {.role = TableRole::writer}); });
      }
      return _guarded(_config, change);
   }

   /// For those who wait for changes of a table that is not there yet.
   void _look() {
      const std::shared_ptr<Impl> self = shared_from_this();
      if (std::all_of(_followers.begin(), _followers.end(),
                      [](const auto& one) { return one.expired(); })) {
         return;
      }
      if (!mountStatus()) {
         _looking.startIn(lookInterval);
         return;
      }
      std::exception_ptr first;
      for (const CoreRegisterKey key : _guarded(_status, [&] { return _status.keys(); })) {
         try {
            tableChanged(key);
         } catch (...) {
            first = first ? first : std::current_exception();
         }
      }
      if (first) {
         std::rethrow_exception(first);
      }
   }

   void tableChanged(const CoreRegisterKey& changed) override {
      const CoreRegisterKey key = changed;
      const std::shared_ptr<Impl> self = shared_from_this();
      const auto followers = _followers;
      std::exception_ptr first;
      for (const std::weak_ptr<Follower>& one : followers) {
         const std::shared_ptr<Follower> follower = one.lock();
         if (!follower || (follower->key && *follower->key != key)) {
            continue;
         }
         const String* const regName =
            follower->key ? &follower->regName : registers->findName(key.address());
         // Any handler may have closed the client, or met damage.
         if (!regName || !_status.tableMount()) {
            continue;
         }
         try {
            if (const Value value = _valueIn(_status, key); follower->isNews(key, value)) {
               follower->handler(*regName, value);
            }
         } catch (...) {
            first = first ? first : std::current_exception();
         }
      }
      if (first) {
         std::rethrow_exception(first);
      }
   }
   void tableMountStatusChanged() override {}
   void tableQuiescedChanged(bool) override {}

   Platform::Tables::TableService& _service;
   Wishes _wishes;
   Table _status;
   Table _config;
   std::vector<std::weak_ptr<Follower>> _followers;
   Platform::Timer _looking;
   bool _closed = false;
};

ShadowClient::ShadowClient(Platform::EventLoop& loop, Platform::Tables::TableService& service,
                           const String& coreName, const Ptr<HardwareRegisterFile>& registers)
   : _impl(std::make_shared<Impl>(loop, service, coreName, registers)) {
   _impl->mountStatus();
}

ShadowClient::~ShadowClient() {
   _impl->close();
}

const String& ShadowClient::coreName() const noexcept {
   return _impl->coreName;
}

const Ptr<HardwareRegisterFile>& ShadowClient::registers() const noexcept {
   return _impl->registers;
}

std::uint32_t ShadowClient::read(std::string_view regName) const {
   if (const Value held = value(regName)) [[likely]] {
      return *held;
   }
   throw ShadowError(Kind::noValue, fmt::format(noValue, coreName(), regName));
}

std::uint32_t ShadowClient::read(std::uint32_t address) const {
   if (const Value held = value(address)) [[likely]] {
      return *held;
   }
   const String* const regName = registers()->findName(address);
   throw ShadowError(
      Kind::noValue,
      fmt::format(noValue, coreName(), regName ? *regName : fmt::format("{:#x}", address)));
}

Value ShadowClient::value(std::string_view regName) const {
   return value(_impl->record(regName).address);
}

Value ShadowClient::value(std::uint32_t address) const {
   return _impl->held(CoreRegisterKey(address));
}

Value ShadowClient::wish(std::string_view regName) const {
   return wish(_impl->record(regName).address);
}

Value ShadowClient::wish(std::uint32_t address) const {
   return _impl->wished(CoreRegisterKey(address));
}

void ShadowClient::wishIs(std::string_view regName, std::uint32_t value) {
   const HardwareRegister& record = _impl->record(regName);
   if (!record.writable) {
      throw ShadowError(Kind::notPermitted, fmt::format(notWritable, regName, coreName()));
   }
   _impl->wishIs(CoreRegister(CoreRegisterKey(record.address), value));
}

bool ShadowClient::wishDel(std::string_view regName) {
   return _impl->wishDel(CoreRegisterKey(_impl->record(regName).address));
}

bool ShadowClient::waitUntilHeld(std::span<const CoreRegister> wished,
                                 std::chrono::nanoseconds timeout) const {
   const std::shared_ptr<Impl> impl = _impl; // a handler may end the client
   return impl->loop.runUntil(
      [&] {
         return std::all_of(wished.begin(), wished.end(), [&](const CoreRegister& one) {
            return impl->held(one.key()) == one.value();
         });
      },
      timeout);
}

void ShadowClient::write(std::string_view regName, std::uint32_t value,
                         std::chrono::nanoseconds timeout) {
   wishIs(regName, value);
   const CoreRegister wished(CoreRegisterKey(_impl->record(regName).address), value);
   if (!waitUntilHeld({&wished, 1}, timeout)) {
      throw ShadowError(Kind::timedOut, fmt::format(timedOut, coreName(), regName, value));
   }
}

ShadowClient::Following ShadowClient::follow(std::string_view regName, Handler handler) {
   const CoreRegisterKey key(_impl->record(regName).address);
   return _impl->follow({key, String(regName), std::move(handler), {}});
}

ShadowClient::Following ShadowClient::follow(Handler handler) {
   return _impl->follow({std::nullopt, {}, std::move(handler), {}});
}

String ShadowClient::damage() const {
   return _impl->damage();
}

} // namespace TarnRegFile::Sable
