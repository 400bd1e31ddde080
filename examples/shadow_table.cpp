// Two processes share the table of what a device's registers should hold: one writes wishes into
// it, any number of others are told of them.
//
//    shadow_table reader &
//    shadow_table writer 0x10=5 0x14=7     # writes two registers
//    shadow_table writer 0x14=             # takes one back
//
// The reader lists what there is, then follows the changes until it is interrupted. Tables are in
// /dev/shm/tarn, or where TARN_TABLE_DIR says.

#include <csignal>
#include <cstdio>
#include <exception>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/entity/CallbackNotifiee.h"
#include "platform/entity/EventLoop.h"
#include "platform/entity/SignalWatch.h"
#include "platform/entity/Value.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/ShadowRegisterConfig.h"

namespace {

using Platform::Tables::TableRole;
using TarnRegFile::Sable::CoreRegister;
using TarnRegFile::Sable::CoreRegisterKey;
using TarnRegFile::Sable::ShadowRegisterConfig;

constexpr const char* tableName = "example-config";

std::uint32_t number(const std::string& text) {
   std::size_t used = 0;
   const unsigned long value = std::stoul(text, &used, 0);
   if (used != text.size() || value > std::numeric_limits<std::uint32_t>::max()) {
      throw std::invalid_argument("no number of 32 bits: " + text);
   }
   return static_cast<std::uint32_t>(value);
}

void print(CoreRegisterKey key, const std::optional<CoreRegister>& found) {
   if (found) {
      std::printf("0x%x = 0x%x\n", key.address(), found->value());
   } else {
      std::printf("0x%x is gone\n", key.address());
   }
   std::fflush(stdout);
}

void write(int count, char** wishes) {
   Platform::EventLoop loop;
   Platform::Tables::TableService service(loop);
   const auto control =
      Platform::Tables::collectionControlFactory(service, {.role = TableRole::writer});
   const auto config = TarnRegFile::Sable::shadowRegisterConfigFactory(tableName);
   config->regMapControlIs(control);
   control->mount();

   for (int i = 0; i < count; ++i) {
      const std::string wish = wishes[i];
      const std::size_t equals = wish.find('=');
      if (equals == std::string::npos) {
         throw std::invalid_argument("no ADDRESS=VALUE: " + wish);
      }
      const CoreRegisterKey key(number(wish.substr(0, equals)));
      if (equals + 1 < wish.size()) {
         config->regMapIs(CoreRegister(key, number(wish.substr(equals + 1))));
      } else {
         config->regMapDel(key);
      }
   }
}

void read() {
   Platform::EventLoop loop;
   Platform::Tables::TableService service(loop);
   const auto control =
      Platform::Tables::collectionControlFactory(service, {.role = TableRole::reader});
   const auto config = TarnRegFile::Sable::shadowRegisterConfigFactory(tableName);
   config->regMapControlIs(control);
   control->mount();

   // A change says which register it is about. What it holds is looked up, and may be newer.
   const auto changes = Platform::subscribe(
      *config, ShadowRegisterConfig::regMapAttr, [&](const Platform::Change& change) {
         const CoreRegisterKey key = change.key.as<CoreRegisterKey>();
         print(key, config->regMap().get(key));
      });
   config->regMap().forEach([](const CoreRegister& found) { print(found.key(), found); });

   Platform::SignalWatch interrupted(loop, {SIGINT, SIGTERM}, [&](int) { loop.stop(); });
   std::printf("%zu registers; following changes\n", config->regMap().size());
   std::fflush(stdout);
   loop.run();
}

} // namespace

int main(int argc, char** argv) {
   const std::string role = argc > 1 ? argv[1] : "";
   if (!(role == "writer" && argc > 2) && !(role == "reader" && argc == 2)) {
      std::fprintf(stderr, "usage: %s writer ADDRESS=[VALUE]... | reader\n", argv[0]);
      return 2;
   }
   try {
      if (role == "writer") {
         write(argc - 2, argv + 2);
      } else {
         read();
      }
   } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      return 1;
   }
   return 0;
}
