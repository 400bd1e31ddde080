#pragma once

#include <atomic>
#include <cstdint>

namespace Platform::Tables {

/// What a fork does to the mounts of a process. The child has copies of the descriptors that stand
/// for the parent's mounts; as long as they are open the parent looks alive to everybody else.
/// So they are closed in the child at once, and what is left of the mounts there may only read.
///
/// Of the process, like fork itself. Any thread.
class ForkWatch {
public:
   ForkWatch() = delete;

   /// Has `fd` closed in every child that is forked from now on. Throws std::bad_alloc.
   static void fdIs(int fd);
   static void fdDel(int fd) noexcept;

   /// Differs between a process and the children forked off after the first fdIs().
   static std::uint64_t generation() noexcept {
      return _generation.load(std::memory_order_relaxed);
   }

private:
   static std::atomic<std::uint64_t> _generation;
};

} // namespace Platform::Tables
