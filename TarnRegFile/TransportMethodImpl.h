#pragma once

#include <cstdint>

#include "TarnRegFile/AsyncHelper.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// What every transport implements: how one register is read and written on its bus. It resolves
/// names with the RegFileHelper that it owns.
///
/// A transport belongs to one TransportMethod, which destroys it, and is driven by that one's
/// thread. Its accesses may throw std::runtime_error (std::system_error included) and
/// Hardware::SigbusException; TransportMethod turns those into the error notification.
class TARN_API BaseTransportMethodImpl {
public:
   /// Loads the register list: from `csvPath` unless that is empty, else from `regFile`.
   /// `addrBlockSize` is the number of address units per register number. Throws what
   /// RegFileHelper::init() throws.
   BaseTransportMethodImpl(const char* csvPath, std::uint8_t addrBlockSize,
                           const Ptr<HardwareRegisterFile>& regFile);

   BaseTransportMethodImpl(const BaseTransportMethodImpl&) = delete;
   BaseTransportMethodImpl& operator=(const BaseTransportMethodImpl&) = delete;

   // Virtual slots, in this order; implementations compiled elsewhere rely on it.

   virtual ~BaseTransportMethodImpl();

   /// Reads one register.
   virtual std::uint32_t regRead(const char* regName) = 0;

   /// Writes one register.
   virtual void regWrite(const char* regName, std::uint32_t value) = 0;

   /// Reads `count` consecutive words, from the named register on, into `buffer`. A transport
   /// that does not override it has no block access; being asked for one stops the process.
   virtual void regReadBlock(const char* regName, std::uint32_t* buffer, std::uint32_t count);

   /// Writes `count` consecutive words from the named register on. As regReadBlock().
   virtual void regWriteBlock(const char* regName, const std::uint32_t* buffer,
                              std::uint32_t count);

   /// Installs the receiver of results in place of the one there; null for none.
   virtual void asyncHelperIs(Ptr<AsyncHelperBase> helper);

   /// The installed receiver, or null.
   virtual Ptr<AsyncHelperBase> getAsyncHelper() const;

   // Not virtual.

   /// Reads every register that is not of type "cfg", in ascending order of address, and prints
   /// "%-60s 0x%x\n" for each on standard error. What a read throws ends the dump and passes on.
   void dumpAll();

   /// The register list; never null.
   const Ptr<RegFileHelper>& regFileHelper() const noexcept { return helper; }

protected:
   Ptr<RegFileHelper> helper;
   Ptr<AsyncHelperBase> asyncHelper;
};

} // namespace TarnRegFile
