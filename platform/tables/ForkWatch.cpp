#include "platform/tables/private/ForkWatch.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace Platform::Tables {

namespace {

// Neither is ever destroyed: a fork may come while the process exits.
std::mutex& mutex() {
   static auto* const instance = new std::mutex;
   return *instance;
}

std::vector<int>& descriptors() {
   static auto* const instance = new std::vector<int>;
   return *instance;
}

} // namespace

std::atomic<std::uint64_t> ForkWatch::_generation{0};

// Listed first: what counts is the process that the list was made in.
ForkWatch::File::File(FileHandle& file) : _file(file), _bornIn((_fdIs(file.fd()), generation())) {}

ForkWatch::File::~File() {
   if (generation() == _bornIn) {
      _fdDel(_file.fd());
   } else {
      // Closed when this process began; the number may be somebody else's by now.
      _file.release();
   }
}

void ForkWatch::_fdIs(int fd) {
   static std::once_flag once;
   std::call_once(once, [] {
      // Held over the fork, so that the child finds the list whole.
      ::pthread_atfork([] { mutex().lock(); }, [] { mutex().unlock(); },
                       [] {
                          _generation.fetch_add(1, std::memory_order_relaxed);
                          for (const int descriptor : descriptors()) {
                             ::close(descriptor);
                          }
                          descriptors().clear();
                          mutex().unlock();
                       });
   });
   const std::lock_guard lock(mutex());
   descriptors().push_back(fd);
}

void ForkWatch::_fdDel(int fd) noexcept {
   const std::lock_guard lock(mutex());
   std::erase(descriptors(), fd);
}

} // namespace Platform::Tables
