#pragma once

#include <map>
#include <memory>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Export.h"
#include "platform/entity/Ptr.h"
#include "platform/entity/Types.h"
#include "platform/hardware/SornBackend.h"
#include "platform/hardware/SornDesc.h"

namespace Hardware {

class SornBus;

/// The access manager: runs operations for many clients on I2C buses, one worker thread a bus, and
/// tells of their ends on an event loop.
///
/// Owned by the program, on the loop's thread; the loop has to outlive it, and everything that
/// comes from it is for that thread too. The program has to have said multiThreadedIs() only if it
/// shares counted pointers between threads itself: the workers touch none.
///
/// When it goes, requests that have not ended are cancelled. It waits for no bus: a worker whose
/// operation hangs is left behind, and ends with that operation.
class TARN_PLATFORM_API SornManager {
public:
   explicit SornManager(Platform::EventLoop& loop);
   ~SornManager();

   SornManager(const SornManager&) = delete;
   SornManager& operator=(const SornManager&) = delete;

   /// A new bus, driven by `backend`, with a worker of its own. Throws std::system_error (generic
   /// category): EEXIST when there is one of that name, EINVAL when there is no backend, ESHUTDOWN
   /// when the manager is going; or what the system has against another thread.
   Ptr<SornDesc> busNew(const String& name, std::unique_ptr<SornBackend> backend);

   /// The kernel's I2C bus of that path, "/dev/i2c-3": the one that there is by that name, or a new
   /// one, which is not opened before it is used. Throws as busNew() does.
   Ptr<SornDesc> linuxBus(const String& path);

private:
   Platform::EventLoop& _loop;
   bool _isGoing = false;
   std::map<String, std::shared_ptr<SornBus>> _buses;
};

} // namespace Hardware
