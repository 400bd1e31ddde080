#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/entity/EventLoop.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/TableDirectory.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/OrderedRegisterConfig.h"
#include "TarnRegFile/OrderedRegisterStatus.h"
#include "TarnRegFile/ShadowRegisterConfig.h"
#include "TarnRegFile/ShadowRegisterStatus.h"
#include "tests/support/ChangeLog.h"
#include "tests/support/TempDir.h"

/// What the tests of the four register tables share: each table under the same names, and a
/// directory and an event loop to mount it on.
namespace RegisterTables {

using namespace TarnRegFile::Sable;
using Platform::Ptr;
using Platform::Tables::CollectionControl;
using Platform::Tables::CorruptionException;
using Platform::Tables::MountStatus;
using Platform::Tables::TableRole;
using TestSupport::ChangeLog;
using Changes = std::vector<std::string>;

/// The operations of the tables of registers, under names that both families have.
template <typename E>
struct Shadow {
   using Entity = E;
   using Record = CoreRegister;
   using Key = CoreRegisterKey;

   static constexpr const char* collection = "regMap";
   static constexpr const char* control = "regMapControl";
   static constexpr auto table = &E::regMap;
   static constexpr auto is = &E::regMapIs;
   static constexpr auto directWrite = &E::regMapDirectWrite;
   static constexpr auto commit = &E::regMapCommit;
   static constexpr auto abandon = &E::regMapAbandon;
   static constexpr auto del = &E::regMapDel;
   static constexpr auto delAll = &E::regMapDelAll;
   static constexpr auto notify = &E::regMapNotify;
   static constexpr auto notifyQuiesced = &E::regMapNotifyQuiesced;
   static constexpr auto notifyMountStatus = &E::regMapNotifyMountStatus;
   static constexpr auto controlIs = &E::regMapControlIs;
   static constexpr auto controlOf = &E::regMapControl;
   static constexpr auto handleCorruption = &E::regMapHandleCorruption;

   static Key key(std::uint32_t number) { return Key(number); }
   static Record record(std::uint32_t number, std::uint32_t value) {
      return Record(key(number), value);
   }
};

/// Those of the tables of ordered operations; a record's value is that of its first write.
template <typename E>
struct Ordered {
   using Entity = E;
   using Record = OrderedRegisterOp;
   using Key = UniqueId;

   static constexpr const char* collection = "op";
   static constexpr const char* control = "opControl";
   static constexpr auto table = &E::op;
   static constexpr auto is = &E::opIs;
   static constexpr auto directWrite = &E::opDirectWrite;
   static constexpr auto commit = &E::opCommit;
   static constexpr auto abandon = &E::opAbandon;
   static constexpr auto del = &E::opDel;
   static constexpr auto delAll = &E::opDelAll;
   static constexpr auto notify = &E::opNotify;
   static constexpr auto notifyQuiesced = &E::opNotifyQuiesced;
   static constexpr auto notifyMountStatus = &E::opNotifyMountStatus;
   static constexpr auto controlIs = &E::opControlIs;
   static constexpr auto controlOf = &E::opControl;
   static constexpr auto handleCorruption = &E::opHandleCorruption;

   static Key key(std::uint32_t number) { return Key(number); }
   static Record record(std::uint32_t number, std::uint32_t value) {
      Record record(key(number));
      record.opSizeIs(1);
      record.regKeyIs(OpIndex(0), CoreRegisterKey(number));
      record.regValueIs(OpIndex(0), value);
      return record;
   }
};

struct ShadowConfig : Shadow<ShadowRegisterConfig> {
   static constexpr const char* className = "ShadowRegisterConfig";
   static constexpr auto factory = &shadowRegisterConfigFactory;
   static constexpr auto inPlace = &ShadowRegisterConfig::ShadowRegisterConfigIs;
};
struct ShadowStatus : Shadow<ShadowRegisterStatus> {
   static constexpr const char* className = "ShadowRegisterStatus";
   static constexpr auto factory = &shadowRegisterStatusFactory;
   static constexpr auto inPlace = &ShadowRegisterStatus::ShadowRegisterStatusIs;
};
struct OrderedConfig : Ordered<OrderedRegisterConfig> {
   static constexpr const char* className = "OrderedRegisterConfig";
   static constexpr auto factory = &orderedRegisterConfigFactory;
   static constexpr auto inPlace = &OrderedRegisterConfig::OrderedRegisterConfigIs;
};
struct OrderedStatus : Ordered<OrderedRegisterStatus> {
   static constexpr const char* className = "OrderedRegisterStatus";
   static constexpr auto factory = &orderedRegisterStatusFactory;
   static constexpr auto inPlace = &OrderedRegisterStatus::OrderedRegisterStatusIs;
};

using All = testing::Types<ShadowConfig, ShadowStatus, OrderedConfig, OrderedStatus>;

/// Calls an operation: call<T::is>(entity, record).
template <auto Operation, typename E, typename... Arguments>
decltype(auto) call(E& entity, Arguments&&... arguments) {
   return (entity.*Operation)(std::forward<Arguments>(arguments)...);
}

/// Runs `body` in a process of its own, forked off here, and returns whether it ended with all its
/// expectations met. What the process mounts it has to mount itself.
inline bool inAnotherProcess(const std::function<void()>& body) {
   std::fflush(nullptr);
   const pid_t pid = ::fork();
   if (pid == 0) {
      int verdict = 1;
      try {
         body();
         verdict = testing::Test::HasFailure() ? 1 : 0;
      } catch (const std::exception& error) {
         std::fprintf(stderr, "in the other process: %s\n", error.what());
      }
      std::fflush(nullptr);
      ::_exit(verdict);
   }
   int status = 0;
   return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
          WEXITSTATUS(status) == 0;
}

/// One process's side: its event loop and table service.
struct Side {
   explicit Side(const std::string& directory)
      : service(loop, Platform::Tables::TableDirectory(directory)) {}

   Ptr<CollectionControl> controlNew(TableRole role = TableRole::writer) {
      return Platform::Tables::collectionControlFactory(service, {.role = role});
   }

   /// Runs the loop until `condition` holds.
   bool until(const std::function<bool()>& condition) {
      return loop.runUntil(condition, std::chrono::seconds(60));
   }

   Platform::EventLoop loop;
   Platform::Tables::TableService service;
};

/// An entity of this process, mounted through a control.
template <typename T>
struct Mounted {
   Mounted(Side& side, const std::string& name, TableRole role = TableRole::writer)
      : control(side.controlNew(role)), entity(T::factory(name)) {
      call<T::controlIs>(*entity, control);
      control->mount();
   }

   void is(std::uint32_t number, std::uint32_t value) {
      call<T::is>(*entity, T::record(number, value));
   }
   typename T::Record del(std::uint32_t number) { return call<T::del>(*entity, T::key(number)); }
   const auto& table() const { return call<T::table>(std::as_const(*entity)); }
   bool has(std::uint32_t number, std::uint32_t value) const {
      return table().get(T::key(number)) == T::record(number, value);
   }

   Ptr<CollectionControl> control;
   Ptr<typename T::Entity> entity;
};

template <typename T>
class Fixture : public testing::Test {
protected:
   /// What is published for a key: "regMap[...]".
   static std::string change(std::uint32_t number) {
      return std::string(T::collection) + "[" + T::key(number).stringRep() + "]";
   }

   std::string directory() const { return temp.path("tables"); }

   TestSupport::TempDir temp{"/dev/shm"};
   Side side{directory()};
};

/// The names that gtest shows.
struct Names {
   template <typename T>
   static std::string GetName(int) {
      return T::className;
   }
};

} // namespace RegisterTables
