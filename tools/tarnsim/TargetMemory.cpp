#include "tools/tarnsim/TargetMemory.h"

#include <sys/uio.h>

namespace TarnSim {

namespace {

using Copy = ssize_t(pid_t, const iovec*, unsigned long, const iovec*, unsigned long,
                     unsigned long);

bool copyAll(Copy* copy, pid_t thread, std::uint64_t address, void* here, std::size_t size) {
   if (size == 0) {
      return true;
   }
   const iovec local{here, size};
   // NOLINTNEXTLINE(performance-no-int-to-ptr): an address in another process
   const iovec remote{reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), size};
   return copy(thread, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

} // namespace

bool TargetMemory::read(std::uint64_t address, void* to, std::size_t size) const noexcept {
   return copyAll(::process_vm_readv, _thread, address, to, size);
}

bool TargetMemory::write(std::uint64_t address, const void* from, std::size_t size) const noexcept {
   return copyAll(::process_vm_writev, _thread, address, const_cast<void*>(from), size);
}

} // namespace TarnSim
