#include "platform/tables/TableMount.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/PatchedMemory.h"
#include "platform/tables/private/Bell.h"
#include "platform/tables/private/ForkWatch.h"
#include "platform/tables/private/Geometry.h"
#include "platform/tables/private/MountRegister.h"
#include "platform/tables/private/TableAudit.h"
#include "platform/tables/private/TableEditor.h"
#include "platform/tables/private/TableFiles.h"
#include "platform/tables/private/TableLock.h"

namespace Platform::Tables {

namespace {

constexpr const char* corrupted = "shared table '{}' is corrupted: {} {}";
constexpr const char* busError = "shared table '{}' is corrupted: its memory is gone (the file was "
                                 "cut off, or there is none left)";
constexpr const char* otherShape =
   "shared table '{}' is for {} under {} ({} bytes under {}), not for {} under {} ({} under {})";
constexpr const char* readerWrites = "shared table '{}' is mounted as a reader";
constexpr const char* isQuiesced = "shared table '{}' is quiesced";
constexpr const char* inChild =
   "shared table '{}' was mounted by the parent process: a child has to mount it itself";
constexpr const char* lockHeld =
   "shared table '{}' has been locked by another mount for {} seconds";
constexpr const char* lockOwn = "shared table '{}' is being written by this mount already";
constexpr const char* tableFull = "shared table '{}' is full: it was made for {} records";
constexpr const char* noMemory = "no memory for another record of shared table '{}'";
constexpr const char* badKey = "a key of shared table '{}' has {} bytes, not {}";
constexpr const char* badRecord = "a record of shared table '{}' has up to {} bytes, not {}";
constexpr const char* smallBuffer = "the copy of a record of shared table '{}' needs {} words";

/// The pages of a table in memory: one range of addresses, in which the page of NAME.ctl comes
/// before the table. Where a file is cut off there are zeros, which no check takes for anything.
class Mapping {
public:
   Mapping(const TableFiles& files, std::size_t tableSize, bool writable)
      : _size(Geometry::pageSize + tableSize) {
      void* const range =
         ::mmap(nullptr, _size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
      if (range == MAP_FAILED) {
         throwErrno("cannot map a shared table");
      }
      _base = static_cast<std::uint8_t*>(range);
      const int own = files.control.isOpen() ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS;
      const int access = PROT_READ | (writable ? PROT_WRITE : 0);
      if (::mmap(_base, Geometry::pageSize, PROT_READ | PROT_WRITE, own | MAP_FIXED,
                 files.control.fd(), 0) == MAP_FAILED ||
          ::mmap(table(), tableSize, access, MAP_SHARED | MAP_FIXED, files.table.fd(), 0) ==
             MAP_FAILED) {
         const int error = errno;
         ::munmap(_base, _size);
         errno = error;
         throwErrno("cannot map a shared table");
      }
      try {
         _patched.emplace(_base, _size, PROT_READ | PROT_WRITE);
      } catch (...) {
         ::munmap(_base, _size);
         throw;
      }
   }
   ~Mapping() {
      _patched.reset();
      ::munmap(_base, _size);
   }

   Mapping(const Mapping&) = delete;
   Mapping& operator=(const Mapping&) = delete;

   std::uint8_t* table() const noexcept { return _base + Geometry::pageSize; }

   /// A bit for each mount that wants to be woken; those with high numbers share the last one.
   Word* armed() const noexcept { return reinterpret_cast<Word*>(_base); }

   std::uint32_t* lockWord() const noexcept {
      return reinterpret_cast<std::uint32_t*>(table() + Geometry::controlOffset);
   }

   /// Whether part of the memory has vanished, so that zeros were found in its place.
   bool lost() const noexcept { return _patched->lost(); }

private:
   std::uint8_t* _base = nullptr;
   const std::size_t _size;
   std::optional<PatchedMemory> _patched;
};

constexpr std::uint32_t lastOwnBit = 62;

// A slot is never another one, and its state changes with each write.
TableMount::Stamp stampOf(const TableImage::Place& place) noexcept {
   return {place.meta, place.slot};
}

/// Copies bytes to words, the last of which is filled up with zeros.
void padded(std::span<const std::uint8_t> bytes, Word* words) noexcept {
   // The sizes that keys and register records have, without a call.
   if (bytes.size() == 4) {
      std::uint32_t half = 0;
      std::memcpy(&half, bytes.data(), sizeof half);
      words[0] = half;
   } else if (bytes.size() == sizeof(Word)) {
      std::memcpy(words, bytes.data(), sizeof(Word));
   } else {
      words[bytes.empty() ? 0 : wordsFor(bytes.size()) - 1] = 0;
      std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t*>(words));
   }
}

} // namespace

class TableMount::Impl {
public:
   Impl(const std::string& name, TableFiles files, const Options& options)
      : _name(name), _role(options.role), _shape(files.header.shape()), _geometry(_shape),
        _id(files.header.tableId), _files(std::move(files)),
        _mapping(_files, _geometry.fileSize, _role == TableRole::writer),
        _scratch(_geometry.recordWords), _bytes(_geometry.recordWords),
        _image(_mapping.table(), _geometry, _id) {
      if (options.shape) {
         _checkShape(*options.shape);
      }
      Word bit = 0;
      Word own = 0;
      if (_files.mounts.isOpen()) {
         _register = std::make_unique<MountRegister>(std::move(_files.mounts), _role);
         const std::uint32_t index = _register->index();
         bit = Word{1} << std::min(index, lastOwnBit + 1);
         // Its own changes it knows. A bit that it shares may be somebody else's wish.
         own = index <= lastOwnBit ? bit : 0;
         // Wherever it is used it differs from that of every mount that is there.
         _origin = _register->index() << 21 | _register->nonce();
      }
      _bell.emplace(_mapping.armed(), _files.bell.fd(), bit, own);
      _forkGeneration = ForkWatch::generation();
      if (_role == TableRole::writer) {
         _lock = std::make_unique<TableLock>(_mapping.lockWord(), *_register);
         _editor = std::make_unique<TableEditor>(_mapping.table(), _files.table.fd(), _geometry,
                                                 _id, _origin, _scratch.data());
         _bellNotInChildren.emplace(_files.bell);
      }
      _toTheHead();
   }

   Impl(const Impl&) = delete;
   Impl& operator=(const Impl&) = delete;

   void checkAll() {
      const Audit found = audit();
      if (!found.problems.empty()) {
         throw CorruptionException(
            fmt::format("shared table '{}' is corrupted: {}", _name, found.problems.front()));
      }
   }

   std::optional<std::size_t> get(std::span<const std::uint8_t> key, std::span<Word> record,
                                  TableImage::Place& place) const {
      _checkBuffer(record);
      Word words[wordsFor(256)];
      const TableImage::Key wanted = _key(key, words);
      const Finding finding =
         _image.find(wanted, record.data(), place, TableImage::Content::copied);
      _checkNotLost();
      return _found(finding, place);
   }

   bool put(std::span<const std::uint8_t> key, std::span<const std::uint8_t> record) {
      if (record.size() > _geometry.recordSize) {
         throwError(EINVAL, fmt::format(badRecord, _name, _geometry.recordSize, record.size()));
      }
      Word words[wordsFor(256)];
      const TableImage::Key wanted = _key(key, words);
      padded(record, _bytes.data());
      bool inserted = false;
      _checkDone(_write([&]() noexcept {
         return _editor->put(wanted, _bytes.data(), static_cast<std::uint32_t>(record.size()),
                             inserted);
      }));
      _skipOwn();
      return inserted;
   }

   std::optional<std::size_t> del(std::span<const std::uint8_t> key, std::span<Word> record) {
      _checkBuffer(record);
      Word words[wordsFor(256)];
      const TableImage::Key wanted = _key(key, words);
      TableImage::Place place;
      const Finding finding =
         _write([&]() noexcept { return _editor->del(wanted, record.data(), place); });
      _skipOwn();
      return _found(finding, place);
   }

   void checkWrite(std::span<const std::uint8_t> key) const {
      _checkMayWrite();
      Word words[wordsFor(256)];
      const TableImage::Key wanted = _key(key, words);
      _checkDone(_locked([&]() noexcept { return _editor->check(wanted); }));
   }

   std::size_t count() const {
      Word value = 0;
      const bool intact = _image.control(TableImage::Control::count, value);
      _checkNotLost();
      if (!intact || value > _geometry.maxRecords) {
         _corrupted(Finding::corrupted("the number of records fails its check"));
      }
      return value;
   }

   std::optional<std::size_t> next(std::uint32_t& position, std::span<Word> key,
                                   std::span<Word> record, TableImage::Place& place) const {
      _checkBuffer(record);
      _checkKeyBuffer(key);
      std::uint32_t slot = position;
      const Finding finding = _image.next(slot, key.data(), record.data(), place);
      _checkNotLost();
      position = slot;
      return _found(finding, place);
   }

   Change nextChange(std::span<Word> key) {
      _checkKeyBuffer(key);
      Word cursor = _cursor;
      std::uint32_t origin = 0;
      TableImage::ChangeState state = TableImage::ChangeState::none;
      do {
         state = _image.change(cursor, key.data(), origin);
         cursor += state == TableImage::ChangeState::change ? 1 : 0;
      } while (state == TableImage::ChangeState::change && _origin != 0 && origin == _origin);
      _checkNotLost();
      _cursor = cursor;
      switch (state) {
      case TableImage::ChangeState::none:
         return Change::none;
      case TableImage::ChangeState::change:
         return Change::changed;
      case TableImage::ChangeState::lapped:
         _toTheHead();
         return Change::missed;
      case TableImage::ChangeState::corrupted:
         break;
      }
      _corrupted(Finding::corrupted("an entry of the journal fails its check: number", _cursor));
   }

   bool preparedChange(std::span<Word> key) const {
      _checkKeyBuffer(key);
      const TableImage::ChangeState state = _image.preparedChange(_cursor, key.data());
      _checkNotLost();
      return state == TableImage::ChangeState::change;
   }

   bool isBehind() const noexcept { return !_image.isLatest(_cursor); }

   bool arm() {
      _bell->arm();
      return _head() == _cursor;
   }

   void quiescedIs(bool quiesced) {
      if (_register && !_forked()) {
         _register->quiescedIs(quiesced);
      }
      _quiesced = quiesced;
   }

   Audit audit() const {
      auto result = std::make_unique<TableAudit::Result>();
      std::vector<Word> record(_geometry.recordWords);
      TableAudit::Result* const found = result.get();
      Word* const buffer = record.data();
      if (_role == TableRole::writer && !_forked()) {
         _checkDone(_locked([&]() noexcept {
            TableAudit::run(_image, true, buffer, *found);
            return Finding{};
         }));
      } else {
         TableAudit::run(_image, false, buffer, *found);
         _checkNotLost();
      }
      return _summary(*found);
   }

   std::vector<MountInfo> mounts() const {
      if (!_register || _forked()) {
         return {};
      }
      return _register->mounts();
   }

   const std::string& name() const noexcept { return _name; }
   TableRole role() const noexcept { return _role; }
   const TableShape& shape() const noexcept { return _shape; }
   const Geometry& geometry() const noexcept { return _geometry; }
   bool quiesced() const noexcept { return _quiesced; }
   bool canBeWoken() const noexcept { return _files.control.isOpen() && _origin != 0; }
   int bellFd() const noexcept { return _files.bellWatch.fd(); }

private:
   bool _forked() const noexcept { return ForkWatch::generation() != _forkGeneration; }

   void _checkShape(const TableShape& wanted) const {
      // How much it may hold is the business of who made it.
      if (wanted.keyType != _shape.keyType || wanted.recordType != _shape.recordType ||
          wanted.keySize != _shape.keySize || wanted.recordSize != _shape.recordSize) {
         throwError(EINVAL, fmt::format(otherShape, _name, _shape.recordType, _shape.keyType,
                                        _shape.recordSize, _shape.keySize, wanted.recordType,
                                        wanted.keyType, wanted.recordSize, wanted.keySize));
      }
   }

   void _checkBuffer(std::span<Word> record) const {
      if (record.size() < _geometry.recordWords) {
         throwError(EINVAL, fmt::format(smallBuffer, _name, _geometry.recordWords));
      }
   }
   void _checkKeyBuffer(std::span<Word> key) const {
      if (key.size() < _geometry.keyWords) {
         throwError(EINVAL, fmt::format(smallBuffer, _name, _geometry.keyWords));
      }
   }

   TARN_TABLES_INLINE TableImage::Key _key(std::span<const std::uint8_t> key, Word* words) const {
      if (key.size() != _geometry.keySize) [[unlikely]] {
         throwError(EINVAL, fmt::format(badKey, _name, key.size(), _geometry.keySize));
      }
      padded(key, words);
      return {words, _image.keyHash(words)};
   }

   [[noreturn]] void _corrupted(const Finding& finding) const {
      throw CorruptionException(fmt::format(corrupted, _name, finding.what, finding.where));
   }

   /// What is said of the table counts only if all of it was there.
   void _checkNotLost() const {
      if (_mapping.lost()) [[unlikely]] {
         throw CorruptionException(fmt::format(busError, _name));
      }
   }

   std::optional<std::size_t> _found(const Finding& finding, const TableImage::Place& place) const {
      if (finding.kind == Finding::Kind::absent) {
         return std::nullopt;
      }
      _checkDone(finding);
      return place.length;
   }

   void _checkDone(const Finding& finding) const {
      if (finding.isDone()) [[likely]] {
         return;
      }
      if (finding.kind == Finding::Kind::full) {
         throwError(ENOBUFS, fmt::format(tableFull, _name, _geometry.maxRecords));
      }
      if (finding.kind == Finding::Kind::noSpace) {
         errno = finding.error;
         throwErrno(fmt::format(noMemory, _name));
      }
      _corrupted(finding);
   }

   void _checkMayWrite() const {
      if (_role == TableRole::reader) {
         throwError(EACCES, fmt::format(readerWrites, _name));
      }
      if (_forked()) {
         throwError(EPERM, fmt::format(inChild, _name));
      }
      if (_quiesced) {
         throwError(EBUSY, fmt::format(isQuiesced, _name));
      }
   }

   template <typename Operation>
   Finding _write(Operation operation) {
      _checkMayWrite();
      return _locked(operation);
   }

   /// Runs `operation`, which returns a Finding and throws nothing, with the table's lock held,
   /// after the work of a dead writer was put in order.
   template <typename Operation>
   Finding _locked(Operation operation) const {
      const TableLock::Taken taken = _lock->take();
      if (taken == TableLock::Taken::timedOut) {
         throwError(ETIMEDOUT, fmt::format(lockHeld, _name, TableLock::patience.count()));
      }
      if (taken == TableLock::Taken::alreadyOwn) {
         throwError(EDEADLK, fmt::format(lockOwn, _name));
      }
      const bool fromTheDead = taken == TableLock::Taken::fromTheDead;
      Finding finding;
      if (fromTheDead) [[unlikely]] {
         finding = _editor->recover();
      }
      if (finding.isDone()) {
         finding = operation();
      }
      // The dead one may have died before it rang.
      _bell->ring(fromTheDead);
      if (finding.kind == Finding::Kind::corrupted || _mapping.lost()) [[unlikely]] {
         _lock->abandon(); // who comes next takes nothing for granted either
      } else {
         _lock->giveBack();
      }
      _checkNotLost();
      return finding;
   }

   void _toTheHead() { _cursor = _head(); }

   /// Who has seen everything but this latest change of its own has seen everything. Else a mount
   /// that writes much would run around its own journal, and miss nothing but its own changes.
   void _skipOwn() noexcept { _cursor += _editor->published() == _cursor + 1 ? 1U : 0U; }

   Word _head() const {
      Word head = 0;
      const bool intact = _image.control(TableImage::Control::journalHead, head);
      _checkNotLost();
      if (!intact) {
         _corrupted(Finding::corrupted("the journal's head fails its check: it is", head));
      }
      return head;
   }

   Audit _summary(const TableAudit::Result& found) const {
      Audit summary;
      summary.records = found.records;
      summary.slots = found.slots;
      summary.freeSlots = found.freeSlots;
      summary.indexEntries = found.indexEntries;
      summary.tombstones = found.tombstones;
      summary.changes = found.changes;
      summary.recoveries = found.recoveries;
      struct stat status = {};
      if (::fstat(_files.table.fd(), &status) == 0) {
         summary.bytes = static_cast<std::size_t>(status.st_blocks) * 512;
      }
      for (std::uint32_t i = 0; i < found.problemCount; ++i) {
         summary.problems.push_back(
            fmt::format("{} {}", found.problems[i].what, found.problems[i].where));
      }
      return summary;
   }

   const std::string _name;
   const TableRole _role;
   const TableShape _shape;
   const Geometry _geometry;
   const Word _id;
   TableFiles _files;
   std::optional<ForkWatch::File> _bellNotInChildren;
   const Mapping _mapping;
   std::vector<Word> _scratch; // the editor's
   std::vector<Word> _bytes;   // of a record to be written
   const TableImage _image;
   std::unique_ptr<MountRegister> _register;
   mutable std::optional<Bell> _bell;
   std::unique_ptr<TableLock> _lock;
   std::unique_ptr<TableEditor> _editor;
   std::uint64_t _forkGeneration = 0;
   std::uint32_t _origin = 0; // 0: none, for a reader without a place
   Word _cursor = 0;
   bool _quiesced = false;
};

TableMount::TableMount(const TableDirectory& directory, const std::string& name,
                       const Options& options) {
   if (options.create && !options.shape) {
      throwError(EINVAL, "a table cannot be made without saying for what");
   }
   if (options.shape) {
      checkShape(*options.shape);
   }
   TableFiles::open(directory, name, options.role, options.create ? options.shape : std::nullopt,
                    {.mode = options.mode, .group = options.group}, [&](TableFiles files) {
                       _impl = std::make_unique<Impl>(name, std::move(files), options);
                    });
   if (options.role == TableRole::writer) {
      _impl->checkAll();
   }
}

TableMount::~TableMount() = default;

const std::string& TableMount::name() const noexcept {
   return _impl->name();
}

TableRole TableMount::role() const noexcept {
   return _impl->role();
}

const TableShape& TableMount::shape() const noexcept {
   return _impl->shape();
}

std::size_t TableMount::recordWords() const noexcept {
   return _impl->geometry().recordWords;
}

std::size_t TableMount::keyWords() const noexcept {
   return _impl->geometry().keyWords;
}

std::optional<std::size_t> TableMount::get(std::span<const std::uint8_t> key,
                                           std::span<std::uint64_t> record) const {
   TableImage::Place place;
   return _impl->get(key, record, place);
}

std::optional<std::size_t> TableMount::get(std::span<const std::uint8_t> key,
                                           std::span<std::uint64_t> record, Stamp& stamp) const {
   TableImage::Place place;
   const std::optional<std::size_t> size = _impl->get(key, record, place);
   stamp = size ? stampOf(place) : stamp;
   return size;
}

bool TableMount::put(std::span<const std::uint8_t> key, std::span<const std::uint8_t> record) {
   return _impl->put(key, record);
}

std::optional<std::size_t> TableMount::del(std::span<const std::uint8_t> key,
                                           std::span<std::uint64_t> record) {
   return _impl->del(key, record);
}

void TableMount::checkWrite(std::span<const std::uint8_t> key) const {
   _impl->checkWrite(key);
}

std::size_t TableMount::count() const {
   return _impl->count();
}

std::optional<std::size_t> TableMount::next(std::uint32_t& position, std::span<std::uint64_t> key,
                                            std::span<std::uint64_t> record) const {
   TableImage::Place place;
   return _impl->next(position, key, record, place);
}

std::optional<std::size_t> TableMount::next(std::uint32_t& position, std::span<std::uint64_t> key,
                                            std::span<std::uint64_t> record, Stamp& stamp) const {
   TableImage::Place place;
   const std::optional<std::size_t> size = _impl->next(position, key, record, place);
   stamp = size ? stampOf(place) : stamp;
   return size;
}

TableMount::Change TableMount::nextChange(std::span<std::uint64_t> key) {
   return _impl->nextChange(key);
}

bool TableMount::isBehind() const noexcept {
   return _impl->isBehind();
}

bool TableMount::preparedChange(std::span<std::uint64_t> key) const {
   return _impl->preparedChange(key);
}

bool TableMount::arm() {
   return _impl->arm();
}

bool TableMount::canBeWoken() const noexcept {
   return _impl->canBeWoken();
}

int TableMount::bellFd() const noexcept {
   return _impl->bellFd();
}

void TableMount::quiescedIs(bool quiesced) {
   _impl->quiescedIs(quiesced);
}

bool TableMount::quiesced() const noexcept {
   return _impl->quiesced();
}

std::vector<MountInfo> TableMount::mounts() const {
   return _impl->mounts();
}

TableMount::Audit TableMount::audit() const {
   return _impl->audit();
}

} // namespace Platform::Tables
