#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/entity/EventLoop.h"
#include "platform/entity/Export.h"
#include "platform/tables/TableDirectory.h"

namespace Platform::Tables {

class TableMount;

/// The shared tables of one thread: where they are, on which event loop their changes arrive, and
/// who is told of damage.
///
/// A program makes one for each event loop that mounts tables and passes it to their collection
/// controls. It holds one inotify instance, with a watch for each table. Where the system gives
/// none, and for tables whose writers cannot be asked to wake it, it looks for changes every 10 ms.
///
/// Outlives the tables mounted with it. All calls on the loop's thread.
class TARN_PLATFORM_API TableService {
public:
   /// Throws what the event loop's watches throw.
   explicit TableService(EventLoop& loop, TableDirectory directory = TableDirectory());
   ~TableService();

   TableService(const TableService&) = delete;
   TableService& operator=(const TableService&) = delete;

   const TableDirectory& directory() const noexcept;

   /// Told of a table that is damaged: its name, and what is wrong. For programs that give alarm,
   /// or keep the file for later; beyond that it is traced at level 0. May throw what the program
   /// wants to pass to whoever met the damage.
   using CorruptionHandler =
      std::function<void(const std::string& table, const std::string& message)>;
   void corruptionHandlerIs(CorruptionHandler handler);

   /// Reports damage to the trace and the handler.
   void handleCorruption(const std::string& table, const std::string& message) const;

   /// Calls somebody when the changes of a mount are to be looked at.
   class TARN_PLATFORM_API Watch {
   public:
      /// `closed`: a writer has closed the table, and may have died before it published its last
      /// change. Calls are made by the loop only.
      using Handler = std::function<void(bool closed)>;

      /// Watches `mount`, which outlives it. Throws std::system_error if the system cannot watch
      /// further tables.
      Watch(TableService& service, const TableMount& mount, Handler handler);
      ~Watch();

      Watch(const Watch&) = delete;
      Watch& operator=(const Watch&) = delete;

      /// Has the handler called by the loop soon.
      void callSoon();

   private:
      friend class TableService;
      struct State;
      std::shared_ptr<State> _state;
   };

private:
   class Impl;
   std::shared_ptr<Impl> _impl;
};

} // namespace Platform::Tables
