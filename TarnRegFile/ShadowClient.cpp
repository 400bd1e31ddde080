#include "TarnRegFile/ShadowClient.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <fmt/format.h>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Timer.h"
#include "TarnRegFile/CoreClientTable.h"
#include "TarnRegFile/CoreRegisterList.h"
#include "TarnRegFile/ShadowError.h"

namespace TarnRegFile::Sable {

namespace {

using Kind = ShadowError::Kind;
using Value = std::optional<std::uint32_t>;

constexpr const char* noValue = "core '{}' is not ready: nothing is known of register '{}' yet";
constexpr const char* timedOut = "core '{}' did not set register '{}' to {:#x} in time: {}";

/// How often a table that is not there yet, or in the place of a damaged one, is looked for.
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
class ShadowClient::Impl : public std::enable_shared_from_this<Impl> {
public:
   Impl(Platform::EventLoop& ownLoop, Platform::Tables::TableService& service, const String& core,
        const Ptr<HardwareRegisterFile>& registers)
      : loop(ownLoop), coreName(core), list(core, registers), monitor(ownLoop, service, core),
        _status(
           service, core, "status", [this](CoreRegisterKey key) { _changed(key); },
           [this](bool isDamaged) { _statusChanged(isDamaged); }),
        _config(service, core, "config"), _looking(ownLoop, [this] { _look(); }) {}

   /// The client's end: tells nobody any more.
   void close() {
      _closed = true;
      _followers.clear();
      _looking.cancel();
      _status.close();
      _config.close();
   }

   /// Whether the table of status is there.
   bool hasStatus() { return _status.exists(); }

   Value held(CoreRegisterKey key) { return _valueIn(_status, key); }
   Value wished(CoreRegisterKey key) { return _valueIn(_config, key); }

   /// Whether all of it is held by a core that is ready. See CoreMonitor for why it is asked so.
   bool isHeld(std::span<const CoreRegister> wanted) {
      const auto isInStatus = [&] {
         return std::all_of(wanted.begin(), wanted.end(), [&](const CoreRegister& one) {
            return held(one.key()) == one.value();
         });
      };
      // To look at the tables costs little, at the owner more: it comes when there is hope.
      return isInStatus() && monitor.isReadyAnd(isInStatus);
   }

   void wishIs(const CoreRegister& wish) { _config.put(wish); }
   bool wishDel(CoreRegisterKey key) { return _config.del(key).has_value(); }

   Following follow(Follower follower) {
      const auto kept = std::make_shared<Follower>(std::move(follower));
      if (!hasStatus()) {
         _looking.startIn(lookInterval);
      } else if (kept->key) {
         kept->isNews(*kept->key, held(*kept->key));
      } else {
         _status.forEach(
            [&](const CoreRegister& found) { kept->isNews(found.key(), found.value()); });
      }
      std::erase_if(_followers, [](const auto& one) { return one.expired(); });
      _followers.push_back(kept);
      return kept;
   }

   String damage() const {
      for (const String& one : {_status.damage(), _config.damage(), monitor.damage()}) {
         if (!one.empty()) {
            return one;
         }
      }
      return "";
   }

   Platform::EventLoop& loop;
   const String coreName;
   const CoreRegisterList list;
   CoreMonitor monitor;

private:
   using Table = CoreClientTable<CoreRegister>;

   static Value _valueIn(Table& table, CoreRegisterKey key) {
      const std::optional<CoreRegister> found = table.get(key);
      return found ? Value(found->value()) : std::nullopt;
   }

   /// The table of status is another one than followers know, or tells them nothing any more.
   void _statusChanged(bool isDamaged) {
      if (!_closed && !_followers.empty()) {
         _looking.startIn(isDamaged ? lookInterval : std::chrono::milliseconds(0));
      }
   }

   /// For those who wait for changes of a table that is not there yet, or was damaged.
   void _look() {
      const std::shared_ptr<Impl> self = shared_from_this();
      if (std::all_of(_followers.begin(), _followers.end(),
                      [](const auto& one) { return one.expired(); })) {
         return;
      }
      // Of one that is damaged it was told when that was found.
      if (_status.isStillDamaged() || !_isStatusThere()) {
         _looking.startIn(lookInterval);
         return;
      }
      absl::flat_hash_set<std::uint32_t> addresses;
      _status.forEach([&](const CoreRegister& found) { addresses.insert(found.key().address()); });
      for (const std::weak_ptr<Follower>& one : _followers) {
         if (const std::shared_ptr<Follower> follower = one.lock()) {
            for (const auto& [address, value] : follower->told) {
               addresses.insert(address); // it may have none any more
            }
         }
      }
      std::exception_ptr first;
      for (const std::uint32_t address : addresses) {
         try {
            _changed(CoreRegisterKey(address));
         } catch (...) {
            first = first ? first : std::current_exception();
         }
      }
      if (first) {
         std::rethrow_exception(first);
      }
   }

   bool _isStatusThere() {
      try {
         return hasStatus();
      } catch (const ShadowError& error) {
         if (error.kind() == Kind::damaged) {
            _looking.startIn(lookInterval); // it is told, and another one may come
         }
         throw;
      }
   }

   void _changed(CoreRegisterKey key) {
      const std::shared_ptr<Impl> self = shared_from_this();
      const auto followers = _followers;
      std::exception_ptr first;
      for (const std::weak_ptr<Follower>& one : followers) {
         const std::shared_ptr<Follower> follower = one.lock();
         if (!follower || (follower->key && *follower->key != key)) {
            continue;
         }
         const String* const regName =
            follower->key ? &follower->regName : list.registers()->findName(key.address());
         // Any handler may have closed the client, or met damage.
         if (!regName || _closed || !_status.isMounted()) {
            continue;
         }
         try {
            if (const Value value = held(key); follower->isNews(key, value)) {
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

   Table _status;
   Table _config;
   std::vector<std::weak_ptr<Follower>> _followers;
   Platform::Timer _looking;
   bool _closed = false;
};

ShadowClient::ShadowClient(Platform::EventLoop& loop, Platform::Tables::TableService& service,
                           const String& coreName, const Ptr<HardwareRegisterFile>& registers)
   : _impl(std::make_shared<Impl>(loop, service, coreName, registers)) {
   _impl->hasStatus();
}

ShadowClient::~ShadowClient() {
   _impl->close();
}

const String& ShadowClient::coreName() const noexcept {
   return _impl->coreName;
}

const Ptr<HardwareRegisterFile>& ShadowClient::registers() const noexcept {
   return _impl->list.registers();
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

CoreMonitor& ShadowClient::monitor() noexcept {
   return _impl->monitor;
}

const CoreMonitor& ShadowClient::monitor() const noexcept {
   return _impl->monitor;
}

Value ShadowClient::value(std::string_view regName) const {
   return value(_impl->list.record(regName).address);
}

Value ShadowClient::value(std::uint32_t address) const {
   return _impl->held(CoreRegisterKey(address));
}

Value ShadowClient::wish(std::string_view regName) const {
   return wish(_impl->list.record(regName).address);
}

Value ShadowClient::wish(std::uint32_t address) const {
   return _impl->wished(CoreRegisterKey(address));
}

void ShadowClient::wishIs(std::string_view regName, std::uint32_t value) {
   const HardwareRegister& record = _impl->list.writableRecord(regName);
   _impl->wishIs(CoreRegister(CoreRegisterKey(record.address), value));
}

bool ShadowClient::wishDel(std::string_view regName) {
   return _impl->wishDel(CoreRegisterKey(_impl->list.record(regName).address));
}

bool ShadowClient::waitUntilHeld(std::span<const CoreRegister> wished,
                                 std::chrono::nanoseconds timeout) const {
   const std::shared_ptr<Impl> impl = _impl; // a handler may end the client
   return impl->loop.runUntil([&] { return impl->isHeld(wished); }, timeout);
}

void ShadowClient::write(std::string_view regName, std::uint32_t value,
                         std::chrono::nanoseconds timeout) {
   const std::shared_ptr<Impl> impl = _impl; // a handler may end the client
   wishIs(regName, value);
   const CoreRegister wished(CoreRegisterKey(impl->list.record(regName).address), value);
   if (!waitUntilHeld({&wished, 1}, timeout)) {
      throw ShadowError(Kind::timedOut, fmt::format(timedOut, impl->coreName, regName, value,
                                                    impl->monitor.summary()));
   }
}

ShadowClient::Following ShadowClient::follow(std::string_view regName, Handler handler) {
   const CoreRegisterKey key(_impl->list.record(regName).address);
   return _impl->follow({key, String(regName), std::move(handler), {}});
}

ShadowClient::Following ShadowClient::follow(Handler handler) {
   return _impl->follow({std::nullopt, {}, std::move(handler), {}});
}

String ShadowClient::damage() const {
   return _impl->damage();
}

} // namespace TarnRegFile::Sable
