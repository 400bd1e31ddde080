#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/entity/Export.h"
#include "platform/entity/RefCounted.h"
#include "platform/entity/Types.h"
#include "platform/hardware/SpiCmdData.h"

namespace Hardware {

/// One message to an SPI device: entries by index, sent in the order of their indices with the
/// chip select held from the first to the last.
///
/// Entries may be set in any order, and again. A request whose indices have a gap is no message:
/// the engine refuses it rather than make the missing byte up. Made by a client, held through Ptr
/// by the client and the queue, on one thread; what is sent is what it holds when its turn comes.
class TARN_PLATFORM_API SpiEngineRequest : public Platform::RefCounted {
public:
   /// As many bytes as the kernel's SPI device takes in one message unless told otherwise.
   static constexpr std::size_t maxEntries = 4096;

   /// An empty request. The id is the client's, to know it again in the status.
   explicit SpiEngineRequest(std::uint32_t id) noexcept : _id(id) {}
   ~SpiEngineRequest() override;

   std::uint32_t id() const noexcept { return _id; }

   /// Stores an entry. Throws std::system_error EINVAL (generic category) for an index of
   /// maxEntries or more, and then changes nothing.
   void cmdDataIs(std::uint16_t index, SpiCmdData entry);

   /// The entry at `index`, if there is one.
   std::optional<SpiCmdData> cmdData(std::uint16_t index) const noexcept;

   /// One more than the highest index set; 0 for an empty request.
   std::size_t size() const noexcept { return _size; }

   /// What the device sent back while the message went out, one byte an entry; empty until the
   /// request has completed. The engine sets it.
   const Platform::Bytes& received() const noexcept { return _received; }
   void receivedIs(Platform::Bytes received) noexcept { _received = std::move(received); }

private:
   // Register writes have three entries, and are queued by the thousand: those need no second
   // block of memory.
   static constexpr std::size_t _inlineEntries = 4;

   const std::uint32_t _id;
   std::size_t _size = 0;
   std::array<std::optional<SpiCmdData>, _inlineEntries> _first;
   std::vector<std::optional<SpiCmdData>> _rest;
   Platform::Bytes _received;
};

} // namespace Hardware
