#include "platform/entity/MultiThreading.h"

namespace Platform {

namespace Detail {
std::atomic<bool> multiThreaded{false};
} // namespace Detail

void multiThreadedIs() noexcept {
   Detail::multiThreaded.store(true);
}

} // namespace Platform
