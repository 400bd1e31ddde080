// A client of the shadow agent, a command a run: changes its tables, and prints them.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "platform/entity/EventLoop.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/Table.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/CoreRegister.h"
#include "TarnRegFile/CoreState.h"
#include "TarnRegFile/OrderedRegisterOp.h"

namespace {

using namespace TarnRegFile::Sable;
using Platform::Tables::TableRole;

constexpr const char* usage =
   "shadow_client put|del CORE/TABLE ADDRESS [VALUE]   (tables of registers)\n"
   "shadow_client show CORE/TABLE\n"
   "shadow_client order|claim CORE KEY SIZE [ADDRESS=VALUE...]\n"
   "shadow_client ordered CORE/TABLE\n"
   "shadow_client state CORE\n";

std::uint64_t number(const std::string& text) {
   return std::stoull(text, nullptr, 0);
}

std::uint32_t word(const std::string& text) {
   return static_cast<std::uint32_t>(number(text));
}

template <typename R>
class Client final : private Platform::Tables::Table<R>::Owner {
public:
   Client(const std::string& name, TableRole role) : table(name, *this) {
      table.mount(_service, {.role = role});
   }
   virtual ~Client() = default;

private:
   void tableChanged(const typename Platform::Tables::Table<R>::Key&) override {}
   void tableMountStatusChanged() override {}
   void tableQuiescedChanged(bool) override {}

   Platform::EventLoop _loop;
   Platform::Tables::TableService _service{_loop};

public:
   Platform::Tables::Table<R> table;
};

void showRegisters(const std::string& name) {
   const Client<CoreRegister> client(name, TableRole::reader);
   std::vector<CoreRegisterKey> keys = client.table.keys();
   std::sort(keys.begin(), keys.end());
   for (const CoreRegisterKey key : keys) {
      if (const auto record = client.table.get(key)) {
         fmt::print("{:#x}={:#x}\n", key.address(), record->value());
      }
   }
}

void order(const std::string& name, const std::vector<std::string>& words) {
   OrderedRegisterOp op{Platform::UniqueId(number(words.at(0)))};
   op.opSizeIs(static_cast<std::uint8_t>(number(words.at(1))));
   for (std::size_t i = 2; i < words.size(); ++i) {
      const std::size_t equals = words[i].find('=');
      const OpIndex index(i - 2);
      op.regKeyIs(index, CoreRegisterKey(word(words[i].substr(0, equals))));
      op.regValueIs(index, word(words[i].substr(equals + 1)));
   }
   Client<OrderedRegisterOp>(name, TableRole::writer).table.put(op);
}

void showOrdered(const std::string& name) {
   const Client<OrderedRegisterOp> client(name, TableRole::reader);
   std::vector<Platform::UniqueId> keys = client.table.keys();
   std::sort(keys.begin(), keys.end());
   for (const Platform::UniqueId key : keys) {
      const auto op = client.table.get(key);
      if (!op) {
         continue;
      }
      fmt::print("{}/{}", key.value(), op->opSize());
      for (std::uint32_t i = 0; i < op->regKeyCount(); ++i) {
         fmt::print(" {:#x}={:#x}", op->regKey(OpIndex(i)).address(), op->regValue(OpIndex(i)));
      }
      fmt::print("\n");
   }
}

void showState(const std::string& name) {
   const Client<CoreState> client(name + "/state", TableRole::reader);
   const auto state = client.table.get(CoreState::theKey);
   if (!state) {
      return;
   }
   fmt::print("phase={}\nready={}\nvalid={}\ngeneration={}\npid={}\nread={}\ntotal={}\nrequest={}\n"
              "sync_us={}\nerrors={}\nlosses={}\naccess={}\nchanged={}\nerror={}\n",
              Platform::EnumTraits<CorePhase>::entries[static_cast<int>(state->phase)].name,
              state->ready, state->valid, state->generation, state->pid, state->registersRead,
              state->registersTotal, state->lastRequest, state->syncMicros, state->errors,
              state->losses, state->accessWall, state->changedWall, state->lastError);
}

int run(const std::vector<std::string>& words) {
   const std::string& verb = words.at(0);
   const std::string& name = words.at(1);
   const std::vector<std::string> rest(words.begin() + 2, words.end());
   if (verb == "put") {
      Client<CoreRegister>(name, TableRole::writer)
         .table.put(CoreRegister(CoreRegisterKey(word(rest.at(0))), word(rest.at(1))));
   } else if (verb == "del") {
      Client<CoreRegister>(name, TableRole::writer).table.del(CoreRegisterKey(word(rest.at(0))));
   } else if (verb == "show") {
      showRegisters(name);
   } else if (verb == "order") {
      order(name + "/ops", rest);
   } else if (verb == "claim") {
      order(name + "/ops-status", rest);
   } else if (verb == "ordered") {
      showOrdered(name);
   } else if (verb == "state") {
      showState(name);
   } else {
      std::fputs(usage, stderr);
      return 2;
   }
   return 0;
}

} // namespace

int main(int argc, char** argv) {
   try {
      return run(std::vector<std::string>(argv + 1, argv + argc));
   } catch (const std::exception& error) {
      std::fprintf(stderr, "shadow_client: %s\n", error.what());
      return 1;
   }
}
