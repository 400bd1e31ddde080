#pragma once

#include <sys/types.h>

#include <cstdint>

#include "platform/entity/EnumType.h"
#include "platform/tables/TableDirectory.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile::Sable {

/// Whether the owner of a core lives.
enum class OwnerLife : std::uint8_t {
   unknown, ///< This user may not know.
   gone,    ///< Nobody owns the core, or whoever does has not said anything yet.
   alive,   ///< The owner that has said how the core is.
};

/// Whether a core's owner lives, as any other process can tell. Its process id does not tell:
/// another process may have it by now, and it may be that of another process namespace. So an owner
/// holds locks on a file beside the core's tables, which the system lets go when the process ends,
/// however it does:
///
/// - on the byte `ownerByte`, before it touches anything: this makes it the only owner;
/// - on the byte `servingByte`, as soon as the core's state is its own. Until then NAME/state may
///   be what an owner before it has left, and must not be taken for what the living one says.
///
/// They are those of the open file (F_OFD_SETLK), for writing. Looking needs the right to read the
/// file, which is made with the mode of the tables. A plain value; any thread.
class TARN_API CoreOwner {
public:
   static constexpr off_t ownerByte = 0;
   static constexpr off_t servingByte = 1;

   /// Throws std::system_error as TableDirectory::fileName() does.
   CoreOwner(const Platform::Tables::TableDirectory& directory, const String& coreName);

   /// The file that the locks are on. It stays when the owner has gone.
   const String& lockPath() const noexcept { return _lockPath; }

   /// Whether the owner that NAME/state is of lives. To be asked before NAME/state is looked at:
   /// what is there then was said by an owner that lived when this was asked, or by one after it.
   OwnerLife life() const noexcept;

private:
   String _lockPath;
};

} // namespace TarnRegFile::Sable

template <>
struct Platform::EnumTraits<TarnRegFile::Sable::OwnerLife> {
   static constexpr std::string_view name = "TarnRegFile::Sable::OwnerLife";
   static constexpr EnumEntry entries[] = {{0, "unknown"}, {1, "gone"}, {2, "alive"}};
};
