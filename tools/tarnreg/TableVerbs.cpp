#include "tools/tarnreg/TableVerbs.h"

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "board/NearNames.h"
#include "platform/entity/EventLoop.h"
#include "platform/tables/TableMount.h"
#include "platform/tables/TableService.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/OutputReader.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/TableText.h"

namespace TarnReg {

using Platform::Tables::MountInfo;
using Platform::Tables::TableDirectory;
using Platform::Tables::TableMount;
using Platform::Tables::TableRole;
using Platform::Tables::TableShape;

namespace {

std::vector<std::string> namesIn(const TableDirectory& directory) {
   try {
      return directory.tableNames();
   } catch (const std::system_error& error) {
      const bool refused = error.code() == std::errc::permission_denied;
      throw Failure(refused ? ExitCode::refused : ExitCode::general, error.what());
   }
}

/// The same for a verb that is about all of them, which says so when there are none.
std::vector<std::string> allIn(const TableDirectory& directory, Report& report) {
   std::vector<std::string> names = namesIn(directory);
   if (names.empty()) {
      report.nothing(fmt::format("there are no shared tables in {}", directory.path()));
   }
   return names;
}

[[noreturn]] void throwUnknownTable(const TableDirectory& directory, const std::string& name) {
   Board::NearNames near(name);
   for (const std::string& each : namesIn(directory)) {
      near.add(each);
   }
   std::vector<std::string> names = near.nearest();
   std::transform(names.begin(), names.end(), names.begin(), shownName);
   throw Failure(ExitCode::unknownName, fmt::format("there is no shared table '{}'{}",
                                                    printable(name), Board::didYouMean(names)));
}

/// Runs `work` and turns what may go wrong with a table into the command's failures.
template <typename Work>
auto onTable(const TableDirectory& directory, const std::string& name, const Work& work) {
   try {
      return work();
   } catch (const std::system_error& error) {
      if (error.code() == std::errc::no_such_file_or_directory) {
         throwUnknownTable(directory, name);
      }
      const bool refused = error.code() == std::errc::permission_denied ||
                           error.code() == std::errc::device_or_resource_busy;
      throw Failure(refused ? ExitCode::refused : ExitCode::general, error.what());
   }
}

/// A table, mounted to be looked at.
class View {
public:
   View(const TableDirectory& directory, const std::string& name)
      : _mount(directory, name, {.role = TableRole::reader}), _text(_mount.shape()),
        _key(_mount.keyWords()), _record(_mount.recordWords()) {}

   TableMount& mount() noexcept { return _mount; }
   const TableText& text() const noexcept { return _text; }
   std::span<std::uint64_t> keyWords() noexcept { return _key; }

   /// The bytes of the key that is in keyWords().
   std::span<const std::uint8_t> key() const {
      return {reinterpret_cast<const std::uint8_t*>(_key.data()), _mount.shape().keySize};
   }

   /// The record's bytes; none if there is none.
   std::optional<std::vector<std::uint8_t>> record() {
      const std::optional<std::size_t> size = _mount.get(key(), _record);
      return size ? std::optional(_bytes(*size)) : std::nullopt;
   }

   using Visit =
      std::function<void(std::vector<std::uint8_t> key, std::vector<std::uint8_t> record)>;
   void forEach(const Visit& visit) {
      for (std::uint32_t position = 0;;) {
         const std::optional<std::size_t> size = _mount.next(position, _key, _record);
         if (!size) {
            return;
         }
         const std::span<const std::uint8_t> bytes = key();
         visit({bytes.begin(), bytes.end()}, _bytes(*size));
      }
   }

   /// The mounts of others.
   std::vector<MountInfo> mounts() const {
      std::vector<MountInfo> found = _mount.mounts();
      std::erase_if(found, [](const MountInfo& mount) {
         return mount.pid == static_cast<std::uint32_t>(::getpid());
      });
      return found;
   }

private:
   std::vector<std::uint8_t> _bytes(std::size_t size) const {
      const auto* const begin = reinterpret_cast<const std::uint8_t*>(_record.data());
      return {begin, begin + size};
   }

   TableMount _mount;
   const TableText _text;
   std::vector<std::uint64_t> _key;
   std::vector<std::uint64_t> _record;
};

std::string mountsText(const std::vector<MountInfo>& mounts) {
   const auto writers = static_cast<std::size_t>(
      std::count_if(mounts.begin(), mounts.end(),
                    [](const MountInfo& mount) { return mount.role == TableRole::writer; }));
   const auto text = [](std::size_t count, const char* what) {
      return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
   };
   return text(writers, "writer") + ", " + text(mounts.size() - writers, "reader");
}

std::string mountText(const MountInfo& mount) {
   return fmt::format("{:<6}  pid {}  {}{}", Platform::enumString(mount.role), mount.pid,
                      printable(mount.program), mount.quiesced ? "  quiesced" : "");
}

nlohmann::ordered_json mountJson(const MountInfo& mount) {
   return {{"role", Platform::enumString(mount.role)},
           {"pid", mount.pid},
           {"program", jsonText(mount.program)},
           {"quiesced", mount.quiesced}};
}

nlohmann::ordered_json joined(nlohmann::ordered_json first, const nlohmann::ordered_json& second) {
   first.update(second);
   return first;
}

} // namespace

void listTables(const TableDirectory& directory, Report& report) {
   const std::vector<std::string> names = allIn(directory, report);
   std::size_t width = 0;
   for (const std::string& name : names) {
      width = std::max(width, shownName(name).size());
   }
   for (const std::string& name : names) {
      // One that cannot be read hides none of the others.
      try {
         onTable(directory, name, [&] {
            View view(directory, name);
            const TableShape& shape = view.mount().shape();
            const std::size_t records = view.mount().count();
            const std::vector<MountInfo> mounts = view.mounts();
            nlohmann::ordered_json mountRows = nlohmann::ordered_json::array();
            for (const MountInfo& mount : mounts) {
               mountRows.push_back(mountJson(mount));
            }
            report.row(fmt::format("{:<{}}  {} record{} of {}  {}", shownName(name), width, records,
                                   records == 1 ? "" : "s", printable(shape.recordType),
                                   mountsText(mounts)),
                       {{"name", jsonText(name)},
                        {"records", records},
                        {"keyType", jsonText(shape.keyType)},
                        {"recordType", jsonText(shape.recordType)},
                        {"mounts", mountRows}});
         });
      } catch (const Failure& failure) {
         report.failure(failure.code(), failure.what(), name);
      } catch (const Platform::Tables::CorruptionException& corruption) {
         report.failure(ExitCode::general, corruption.what(), name);
      }
   }
}

void describeTable(const TableDirectory& directory, const std::string& name, Report& report) {
   onTable(directory, name, [&] {
      View view(directory, name);
      const TableShape& shape = view.mount().shape();
      const TableMount::Audit audit = view.mount().audit();
      const auto line = [&](const char* what, const std::string& text,
                            nlohmann::ordered_json value) {
         report.row(fmt::format("{:<16} {}", what, text), {{"what", what}, {"value", value}});
      };
      line("keys", fmt::format("{}, {} bytes", printable(shape.keyType), shape.keySize),
           {{"type", jsonText(shape.keyType)}, {"bytes", shape.keySize}});
      line("records",
           fmt::format("{} of at most {}: {}, up to {} bytes", audit.records, shape.maxRecords,
                       printable(shape.recordType), shape.recordSize),
           {{"type", jsonText(shape.recordType)},
            {"bytes", shape.recordSize},
            {"count", audit.records},
            {"max", shape.maxRecords}});
      line("memory", fmt::format("{} KiB", audit.bytes / 1024), audit.bytes);
      line("changes",
           fmt::format("{}, the last {} of them kept", audit.changes,
                       std::min<std::uint64_t>(audit.changes, shape.journalEntries - 1)),
           audit.changes);
      line("dead writers", fmt::format("{} cleaned up after", audit.recoveries), audit.recoveries);
      for (const MountInfo& mount : view.mounts()) {
         line("mounted", mountText(mount), mountJson(mount));
      }
      for (const std::string& problem : audit.problems) {
         report.failure(ExitCode::general, fmt::format("{}: {}", printable(name), problem), name);
      }
   });
}

void dumpTable(const TableDirectory& directory, const std::string& name, Report& report) {
   onTable(directory, name, [&] {
      View view(directory, name);
      struct Row {
         std::string key;
         std::vector<std::uint8_t> keyBytes;
         std::vector<std::uint8_t> record;
      };
      std::vector<Row> rows;
      view.forEach([&](std::vector<std::uint8_t> key, std::vector<std::uint8_t> record) {
         std::string text = view.text().key(key);
         rows.push_back({std::move(text), std::move(key), std::move(record)});
      });
      // Stored with the least significant byte first, so numbers are in order from behind.
      std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
         return std::lexicographical_compare(a.keyBytes.rbegin(), a.keyBytes.rend(),
                                             b.keyBytes.rbegin(), b.keyBytes.rend());
      });
      std::size_t width = 0;
      for (const Row& row : rows) {
         width = std::max(width, row.key.size());
      }
      if (rows.empty()) {
         report.nothing("the table has no records");
      }
      for (const Row& row : rows) {
         report.row(fmt::format("{:<{}}  {}", row.key, width, view.text().record(row.record)),
                    joined(view.text().keyJson(row.keyBytes), view.text().recordJson(row.record)));
      }
   });
}

void watchTable(const TableDirectory& directory, const std::string& name,
                const TableWatchOptions& options, Report& report) {
   if (report.json() && options.count == 0 && !options.timeout) {
      throw Failure(ExitCode::usage, "--json prints one document at the end: give it one with "
                                     "--count or --timeout");
   }
   onTable(directory, name, [&] {
      View view(directory, name);
      Platform::EventLoop loop;
      Platform::Tables::TableService service(loop, directory);
      std::uint64_t seen = 0;
      const auto isEnough = [&] { return options.count != 0 && seen >= options.count; };
      const auto show = [&] {
         const std::optional<std::vector<std::uint8_t>> record = view.record();
         const std::string key = view.text().key(view.key());
         ++seen;
         if (record) {
            report.event(fmt::format("{}  {}", key, view.text().record(*record)),
                         joined(view.text().keyJson(view.key()), view.text().recordJson(*record)));
         } else {
            report.event(fmt::format("{}  removed", key),
                         joined(view.text().keyJson(view.key()), {{"removed", true}}));
         }
      };
      const auto look = [&](bool closed) {
         do {
            for (bool more = true; more && !isEnough();) {
               switch (view.mount().nextChange(view.keyWords())) {
               case TableMount::Change::changed:
                  show();
                  break;
               case TableMount::Change::missed:
                  report.failure(ExitCode::general,
                                 "changes came faster than they could be shown; some are missing");
                  break;
               case TableMount::Change::none:
                  more = false;
                  if (closed && view.mount().preparedChange(view.keyWords())) {
                     show();
                  }
                  closed = false;
               }
            }
         } while (!isEnough() && !view.mount().arm());
      };
      Platform::Tables::TableService::Watch watch(service, view.mount(), look);
      look(false);
      if (!options.timeout) {
         // As long as it takes; a signal ends it.
         while (!loop.runUntil(isEnough, std::chrono::seconds(1))) {
            endWithoutReader();
         }
      } else if (!loop.runUntil(isEnough, *options.timeout) && options.count != 0) {
         throw Failure(ExitCode::timeout,
                       fmt::format("{} of {} changes came in time", seen, options.count));
      }
   });
}

void auditTables(const TableDirectory& directory, const std::vector<std::string>& names,
                 Report& report) {
   for (const std::string& name : names.empty() ? allIn(directory, report) : names) {
      try {
         onTable(directory, name, [&] {
            View view(directory, name);
            const TableMount::Audit audit = view.mount().audit();
            report.row(fmt::format("{}  {} records, {}", shownName(name), audit.records,
                                   audit.problems.empty()
                                      ? "no damage"
                                      : fmt::format("{} problems", audit.problems.size())),
                       {{"name", jsonText(name)},
                        {"records", audit.records},
                        {"problems", audit.problems}});
            for (const std::string& problem : audit.problems) {
               report.failure(ExitCode::general, fmt::format("{}: {}", printable(name), problem),
                              name);
            }
         });
      } catch (const Failure& failure) {
         report.failure(failure.code(), failure.what(), name);
      } catch (const Platform::Tables::CorruptionException& corruption) {
         report.failure(ExitCode::general, corruption.what(), name);
      }
   }
}

void removeTable(const TableDirectory& directory, const std::string& name, bool force,
                 Report& report) {
   onTable(directory, name, [&] { directory.tableDel(name, force); });
   report.row(fmt::format("removed {}", shownName(name)), {{"name", jsonText(name)}});
}

} // namespace TarnReg
