#pragma once

#include <cstdint>
#include <vector>

#include "platform/tables/MountInfo.h"
#include "platform/tables/private/FileHandle.h"
#include "platform/tables/private/ForkWatch.h"

namespace Platform::Tables {

/// A mount's place among those of its table: a byte of the register file that it has locked, which
/// the kernel unlocks when the process is gone, however it went. Beside it stands who it is.
///
/// Every lock of the table is taken in the name of such a place, so whether its holder is alive can
/// be asked of the kernel, from any process namespace, with no number that may belong to another
/// process by now.

class MountRegister {
public:
   static constexpr std::uint32_t maxMounts = 1023;

   /// Takes a place. `fd` is the register file, opened for reading and writing. Throws
   /// std::system_error: EMFILE (generic category) if all places are taken; failed system calls.
   MountRegister(FileHandle fd, TableRole role);

   /// Gives the place back, unless this is a forked child's copy.
   ~MountRegister();

   MountRegister(const MountRegister&) = delete;
   MountRegister& operator=(const MountRegister&) = delete;

   std::uint32_t index() const noexcept { return _index; }

   /// Tells this mount from those that had or will have its place. 1 to 2^21 - 1.
   std::uint32_t nonce() const noexcept { return _nonce; }

   /// Whether the mount that has, or had, this place and this nonce may still be there: false only
   /// when it is certain that it is not.
   bool mayBeAlive(std::uint32_t index, std::uint32_t nonce) const noexcept;

   /// Throws std::system_error.
   void quiescedIs(bool quiesced);

   /// All mounts that are there. Throws std::system_error.
   static std::vector<MountInfo> mounts(int fd);
   std::vector<MountInfo> mounts() const;

private:
   void _takePlace();
   void _write(bool quiesced);

   FileHandle _file;
   ForkWatch::File _notInChildren;
   const TableRole _role;
   std::uint32_t _index = 0;
   std::uint32_t _nonce = 0;
};

} // namespace Platform::Tables
