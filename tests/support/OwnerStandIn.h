#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

#include "platform/tables/Table.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/CoreOwner.h"
#include "TarnRegFile/CoreState.h"
#include "TarnRegFile/Utils.h"

namespace TestSupport {

/// Stands in for the owner of a core towards those who ask how the core is: shows a state, of a
/// ready core at first, and holds the lock of an owner that lives. Needs no right to own it, and
/// touches none of the core's other tables.
class OwnerStandIn : private Platform::Tables::Table<TarnRegFile::Sable::CoreState>::Owner {
public:
   using CoreState = TarnRegFile::Sable::CoreState;
   using CorePhase = TarnRegFile::Sable::CorePhase;

   OwnerStandIn(Platform::Tables::TableService& service, const std::string& core)
      : _owner(service.directory(), core), _table(core + "/state", *this) {
      _table.mount(service, {.role = Platform::Tables::TableRole::writer});
      state.pid = static_cast<std::uint32_t>(::getpid());
      readyIs(1);
      live();
   }
   virtual ~OwnerStandIn() = default;
   OwnerStandIn(const OwnerStandIn&) = delete;
   OwnerStandIn& operator=(const OwnerStandIn&) = delete;

   /// What is shown with the next show().
   CoreState state;

   void show() { _table.put(state); }

   /// Shows another phase.
   void phaseIs(CorePhase phase) {
      state.phase = phase;
      state.ready = phase == CorePhase::ready;
      state.valid = state.ready || phase == CorePhase::syncing;
      ++state.changedMonotonic;
      show();
   }

   /// Shows a core that is ready in a generation.
   void readyIs(std::uint32_t generation) {
      state.generation = generation;
      phaseIs(CorePhase::ready);
   }

   /// Takes the lock, or lets it go, as the end of an owner does.
   void live() {
      _lock = TarnRegFile::Utils::UnixFdRes(
         ::open(_owner.lockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660));
      struct flock lock = {};
      lock.l_type = F_WRLCK;
      lock.l_whence = SEEK_SET;
      if (::fcntl(_lock.fd(), F_OFD_SETLK, &lock) != 0) {
         throw std::system_error(errno, std::system_category(), _owner.lockPath());
      }
   }
   void die() { _lock = TarnRegFile::Utils::UnixFdRes(-1); }

private:
   void tableChanged(const Platform::UniqueId&) override {}
   void tableMountStatusChanged() override {}
   void tableQuiescedChanged(bool) override {}

   const TarnRegFile::Sable::CoreOwner _owner;
   Platform::Tables::Table<CoreState> _table;
   TarnRegFile::Utils::UnixFdRes _lock{-1};
};

} // namespace TestSupport
