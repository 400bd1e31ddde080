#pragma once

#include <atomic>
#include <cstdint>

#include "platform/tables/private/FileHandle.h"

namespace Platform::Tables {

/// What a fork does to the mounts of a process. The child has copies of the descriptors that stand
/// for the parent's mounts; as long as they are open the parent looks alive to everybody else.
/// So they are closed in the child at once, and what is left of the mounts there may only read.
///
/// Of the process, like fork itself. Any thread.
class ForkWatch {
public:
   ForkWatch() = delete;

   /// Has an open file closed in every child that is forked while this lives, which is for as long
   /// as the file is open. Ends before the file does, and in a child takes it for closed.
   class File {
   public:
      /// Throws std::bad_alloc.
      explicit File(FileHandle& file);
      ~File();

      File(const File&) = delete;
      File& operator=(const File&) = delete;

   private:
      FileHandle& _file;
      const std::uint64_t _bornIn;
   };

   /// Differs between a process and the children forked off after the first File.
   static std::uint64_t generation() noexcept {
      return _generation.load(std::memory_order_relaxed);
   }

private:
   static void _fdIs(int fd);
   static void _fdDel(int fd) noexcept;

   static std::atomic<std::uint64_t> _generation;
};

} // namespace Platform::Tables
