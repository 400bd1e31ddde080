#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace TarnSim {

/// The memory of a thread of the command, as the thread itself could read and write it. What is
/// at an address is the command's business: nothing here is trusted, and nothing here fails in
/// any other way than by saying so.
class TargetMemory {
public:
   explicit TargetMemory(pid_t thread) noexcept : _thread(thread) {}

   /// Copies all `size` bytes, or returns false.
   bool read(std::uint64_t address, void* to, std::size_t size) const noexcept;
   bool write(std::uint64_t address, const void* from, std::size_t size) const noexcept;

private:
   pid_t _thread;
};

} // namespace TarnSim
