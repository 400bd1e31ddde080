#include "platform/tables/private/MountRegister.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "platform/entity/Errors.h"
#include "platform/tables/private/Seal.h"

namespace Platform::Tables {

namespace {

constexpr const char* allTaken = "a shared table cannot be mounted more than 1023 times at once";
constexpr const char* registerFailed = "cannot register the mount of a shared table";

// As it stands in the register file, at its place.
struct Entry {
   std::uint32_t pid;
   std::uint32_t nonce;
   std::uint8_t role;
   std::uint8_t quiesced;
   char program[64];
   std::uint8_t unused[6];
   std::uint64_t check;
};
static_assert(sizeof(Entry) == 88);

constexpr off_t offsetOf(std::uint32_t index) noexcept {
   return off_t{128} * index;
}

std::uint64_t checkOf(const Entry& entry) noexcept {
   return hashOf(&entry, offsetof(Entry, check));
}

struct flock lockOf(std::uint32_t index, short type) noexcept {
   struct flock lock = {};
   lock.l_type = type;
   lock.l_whence = SEEK_SET;
   lock.l_start = static_cast<off_t>(index);
   lock.l_len = 1;
   return lock;
}

// Asks the kernel. What cannot be asked counts as taken.
bool isTaken(int fd, std::uint32_t index) noexcept {
   struct flock lock = lockOf(index, F_WRLCK);
   return ::fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

bool readEntry(int fd, std::uint32_t index, Entry& entry) noexcept {
   return ::pread(fd, &entry, sizeof entry, offsetOf(index)) ==
             static_cast<ssize_t>(sizeof entry) &&
          entry.check == checkOf(entry);
}

MountInfo infoOf(std::uint32_t index, const Entry& entry) {
   return {.index = index,
           .pid = entry.pid,
           .role = entry.role == static_cast<std::uint8_t>(TableRole::writer) ? TableRole::writer
                                                                              : TableRole::reader,
           .quiesced = entry.quiesced != 0,
           .program = std::string(entry.program, ::strnlen(entry.program, sizeof entry.program))};
}

} // namespace

MountRegister::MountRegister(FileHandle fd, TableRole role)
   : _file(std::move(fd)), _notInChildren(_file), _role(role) {
   while (_nonce == 0) {
      if (::getrandom(&_nonce, sizeof _nonce, 0) != static_cast<ssize_t>(sizeof _nonce)) {
         throwErrno(registerFailed);
      }
      _nonce &= (1U << 21) - 1;
   }
   _takePlace();
   _write(false);
}

MountRegister::~MountRegister() = default;

void MountRegister::_takePlace() {
   for (_index = 0; _index < maxMounts; ++_index) {
      struct flock lock = lockOf(_index, F_WRLCK);
      if (::fcntl(_file.fd(), F_OFD_SETLK, &lock) == 0) {
         return;
      }
      if (errno != EAGAIN && errno != EACCES) {
         throwErrno(registerFailed);
      }
   }
   throwError(EMFILE, allTaken);
}

void MountRegister::_write(bool quiesced) {
   Entry entry = {};
   entry.pid = static_cast<std::uint32_t>(::getpid());
   entry.nonce = _nonce;
   entry.role = static_cast<std::uint8_t>(_role);
   entry.quiesced = quiesced;
   ::strncpy(entry.program, ::program_invocation_short_name, sizeof entry.program - 1);
   entry.check = checkOf(entry);
   if (::pwrite(_file.fd(), &entry, sizeof entry, offsetOf(_index)) !=
       static_cast<ssize_t>(sizeof entry)) {
      throwErrno(registerFailed);
   }
}

void MountRegister::quiescedIs(bool quiesced) {
   _write(quiesced);
}

bool MountRegister::mayBeAlive(std::uint32_t index, std::uint32_t nonce) const noexcept {
   if (index == _index) {
      return nonce == _nonce; // else it had this place before
   }
   if (!isTaken(_file.fd(), index)) {
      return false;
   }
   // Taken, but perhaps by a successor, who says so. What cannot be read proves nothing.
   Entry entry = {};
   return !readEntry(_file.fd(), index, entry) || entry.nonce == nonce;
}

std::vector<MountInfo> MountRegister::mounts(int fd) {
   std::vector<MountInfo> found;
   for (std::uint32_t index = 0; index < maxMounts; ++index) {
      Entry entry = {};
      if (isTaken(fd, index) && readEntry(fd, index, entry)) {
         found.push_back(infoOf(index, entry));
      }
   }
   return found;
}

std::vector<MountInfo> MountRegister::mounts() const {
   std::vector<MountInfo> found = mounts(_file.fd());
   // The kernel does not count one's own locks as taken.
   Entry entry = {};
   if (readEntry(_file.fd(), _index, entry)) {
      const auto place = std::find_if(found.begin(), found.end(), [this](const MountInfo& mount) {
         return mount.index > _index;
      });
      found.insert(place, infoOf(_index, entry));
   }
   return found;
}

} // namespace Platform::Tables
