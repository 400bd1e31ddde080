#include "platform/tables/TableBase.h"

#include <cerrno>
#include <exception>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/tables/CollectionControl.h"
#include "platform/tables/private/KnownKeys.h"
#include "platform/tables/private/SharedWords.h"
#include "platform/tables/TableService.h"
#include "platform/trace/Trace.h"

namespace Platform::Tables {

namespace {

TARN_TRACE_SOURCE(traceSource, "platform/tables");

constexpr const char* notMounted = "shared table '{}' is not mounted";

// So many changes are told before others on the loop have their turn.
constexpr unsigned turn = 1000;

std::span<const std::uint8_t> bytesOf(const std::vector<Word>& words, std::size_t size) {
   return {reinterpret_cast<const std::uint8_t*>(words.data()), size};
}

} // namespace

/// Tells the table what other mounts change. Kept alive while it does, as whoever is told may
/// unmount, or destroy, the table.
///
/// The journal names what has changed, up to its length. Whoever is behind by more looks through
/// the whole table, and tells what is not as it was: the keys that there were, or that were seen
/// since, and the stamps that their records had, are kept for that. So a writer that is always
/// ahead by more than the journal costs a look through the table from time to time, and never has
/// anything told twice.
class TableBase::Changes : public std::enable_shared_from_this<TableBase::Changes> {
public:
   Changes(TableBase& table, TableService& service)
      : known(table._shape.keySize), _table(&table), _key(table._mount->keyWords()),
        _record(table._mount->recordWords()),
        _watch(std::make_unique<TableService::Watch>(service, *table._mount,
                                                     [this](bool closed) { _told(closed); })) {
      TableMount::Stamp stamp;
      for (std::uint32_t position = 0; table._mount->next(position, _key, _record, stamp);) {
         known.set(_keyBytes(), stamp);
      }
      // Whatever came since the mount, and to be woken at what comes.
      _watch->callSoon();
   }

   void stop() {
      _table = nullptr;
      _watch.reset();
   }

   KnownKeys known;

private:
   std::span<const std::uint8_t> _keyBytes() const { return bytesOf(_key, _table->_shape.keySize); }

   void _told(bool closed) {
      const std::shared_ptr<Changes> held = shared_from_this();
      _closed = _closed || closed;
      try {
         if (!_tellSome() && _table) {
            _watch->callSoon();
         }
      } catch (const CorruptionException& corruption) {
         if (_table) {
            // Nothing more can be learned from this table, and the loop goes on.
            TableBase& table = *_table;
            stop();
            table.handleCorruption(corruption.what());
         }
      } catch (...) {
         if (_table) {
            _watch->callSoon(); // for what comes after the change that met the exception
         }
         throw;
      }
   }

   // Returns whether it can sleep now.
   bool _tellSome() {
      for (unsigned told = 0; _table && told < turn; ++told) {
         if (!_pending.empty()) {
            const KnownKeys::Key key = _pending.next();
            _table->changed(key.bytes());
            continue;
         }
         switch (_table->_mount->nextChange(_key)) {
         case TableMount::Change::changed:
            _tell();
            break;
         case TableMount::Change::missed:
            _lookThroughAll();
            break;
         case TableMount::Change::none:
            if (std::exchange(_closed, false) && _table->_mount->preparedChange(_key)) {
               _tell();
               break;
            }
            if (_table->_mount->arm()) {
               return true;
            }
         }
      }
      return !_table;
   }

   void _tell() {
      // Before it is told: whoever is told then sees that write or a later one.
      TableMount::Stamp stamp;
      if (_table->_mount->get(_keyBytes(), _record, stamp)) {
         known.set(_keyBytes(), stamp);
      } else {
         known.erase(_keyBytes());
      }
      const std::vector<Word> key = _key; // the next one may come while this one is told
      _table->changed(bytesOf(key, _table->_shape.keySize));
   }

   void _lookThroughAll() {
      KnownKeys::Update update(known);
      TableMount::Stamp stamp;
      for (std::uint32_t position = 0; _table->_mount->next(position, _key, _record, stamp);) {
         update.found(_keyBytes(), stamp);
      }
      _pending = update.changed();
   }

   TableBase* _table;
   std::vector<Word> _key;
   std::vector<Word> _record;
   KnownKeys::List _pending; // keys still to be told of, after changes were missed
   std::unique_ptr<TableService::Watch> _watch;
   bool _closed = false; // a writer has, and may have died
};

TableBase::TableBase(String name, TableShape shape, Owner& owner)
   : _name(std::move(name)), _shape(std::move(shape)), _owner(owner) {}

TableBase::~TableBase() {
   if (_changes) {
      _changes->stop();
   }
   if (_control) {
      try {
         _control->tableIs(nullptr);
      } catch (const std::exception& failure) {
         // Of somebody who was told that the table is gone; there is nobody to pass it to.
         TARN_TRACE(traceSource, 1, "~TableBase", "table '{}': {}", _name, failure.what());
      } catch (...) {
         TARN_TRACE(traceSource, 1, "~TableBase", "table '{}': unknown exception", _name);
      }
   }
}

void TableBase::mount(TableService& service, const MountOptions& options) {
   if (_mount) {
      return;
   }
   try {
      _mount = std::make_unique<TableMount>(service.directory(), _name,
                                            TableMount::Options{.role = options.role,
                                                                .shape = _shape,
                                                                .create = options.create,
                                                                .mode = options.mode,
                                                                .group = options.group});
      _service = &service;
      _mount->quiescedIs(_quiesced);
      _changes = std::make_shared<Changes>(*this, service);
   } catch (const CorruptionException& corruption) {
      _mount.reset();
      _service = nullptr;
      _corruptedIs(&service, corruption.what());
      throw;
   } catch (const std::exception& failure) {
      _mount.reset();
      _service = nullptr;
      _statusIs(MountStatus::failed, failure.what());
      throw;
   }
   _statusIs(MountStatus::mounted, "");
}

void TableBase::unmount() {
   if (_changes) {
      std::exchange(_changes, nullptr)->stop();
   }
   _mount.reset();
   _service = nullptr;
   _statusIs(MountStatus::unmounted, "");
}

TableRole TableBase::role() const noexcept {
   return _mount ? _mount->role() : TableRole::reader;
}

void TableBase::quiescedIs(bool quiesced) {
   if (quiesced == _quiesced) {
      return;
   }
   if (_mount) {
      _mount->quiescedIs(quiesced);
   }
   _quiesced = quiesced;
   _owner.tableQuiescedChanged(quiesced);
}

void TableBase::handleCorruption(const String& message) {
   if (_mount) {
      _corruptedIs(_service, message);
   }
}

const TableMount& TableBase::_mounted() const {
   if (!_mount) [[unlikely]] {
      throwError(ENOTCONN, fmt::format(notMounted, _name));
   }
   return *_mount;
}

TableMount& TableBase::_mounted() {
   return const_cast<TableMount&>(std::as_const(*this)._mounted());
}

std::optional<std::size_t> TableBase::_get(std::span<const std::uint8_t> key,
                                           std::span<std::uint64_t> record) const {
   const std::optional<std::size_t> size = _mounted().get(key, record);
   if (size) {
      _seen(key);
   }
   return size;
}

std::optional<std::size_t> TableBase::_next(std::uint32_t& position, std::span<std::uint64_t> key,
                                            std::span<std::uint64_t> record) const {
   const std::optional<std::size_t> size = _mounted().next(position, key, record);
   if (size) {
      _seen({reinterpret_cast<const std::uint8_t*>(key.data()), _shape.keySize});
   }
   return size;
}

/// A record that somebody has seen may be removed before the change that made it is told, and both
/// be missed: then he is to be told of the removal all the same.
void TableBase::_seen(std::span<const std::uint8_t> key) const {
   if (_changes && _mount->isBehind()) [[unlikely]] {
      _changes->known.add(key);
   }
}

void TableBase::_put(std::span<const std::uint8_t> key, std::span<const std::uint8_t> record) {
   const bool isNew = _mounted().put(key, record);
   if (!_changes) {
      return;
   }
   if (isNew) {
      // What others did under this key before is still to be told, should it be missed.
      _changes->known.set(key, {});
   } else {
      // It may be another mount's that is still to be told, and may be removed before that.
      _changes->known.add(key);
   }
}

std::optional<std::size_t> TableBase::_del(std::span<const std::uint8_t> key,
                                           std::span<std::uint64_t> record) {
   const std::optional<std::size_t> size = _mounted().del(key, record);
   if (size && _changes) {
      _changes->known.erase(key);
   }
   return size;
}

std::vector<std::vector<std::uint8_t>> TableBase::_keys() const {
   const TableMount& mount = _mounted();
   std::vector<Word> key(mount.keyWords());
   std::vector<Word> record(mount.recordWords());
   std::vector<std::vector<std::uint8_t>> keys;
   for (std::uint32_t position = 0; _next(position, key, record);) {
      const std::span<const std::uint8_t> bytes = bytesOf(key, _shape.keySize);
      keys.emplace_back(bytes.begin(), bytes.end());
   }
   return keys;
}

// The program hears of it even if somebody who hears of the status throws, or lets the table go.
void TableBase::_corruptedIs(const TableService* service, const String& message) {
   const String name = _name;
   std::exception_ptr first;
   try {
      _statusIs(MountStatus::corrupted, message);
   } catch (...) {
      first = std::current_exception();
   }
   service->handleCorruption(name, message);
   if (first) {
      std::rethrow_exception(first);
   }
}

void TableBase::_statusIs(MountStatus status, const String& text) {
   _statusText = text;
   if (status != _status) {
      _status = status;
      _owner.tableMountStatusChanged();
   }
}

} // namespace Platform::Tables
