#include "platform/hardware/SpiEngineRequest.h"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "platform/entity/Errors.h"

namespace Hardware {

namespace {

constexpr const char* indexTooHigh = "SPI request {}: entry {} is beyond the last one, {}";

} // namespace

SpiEngineRequest::~SpiEngineRequest() = default;

void SpiEngineRequest::cmdDataIs(std::uint16_t index, SpiCmdData entry) {
   if (index >= maxEntries) {
      Platform::throwError(EINVAL, fmt::format(indexTooHigh, _id, index, maxEntries - 1));
   }
   const std::size_t needed = std::size_t{index} + 1;
   if (index < _inlineEntries) {
      _first[index] = entry;
   } else {
      if (_rest.size() < needed - _inlineEntries) {
         _rest.resize(needed - _inlineEntries);
      }
      _rest[index - _inlineEntries] = entry;
   }
   _size = std::max(_size, needed);
}

std::optional<SpiCmdData> SpiEngineRequest::cmdData(std::uint16_t index) const noexcept {
   if (index >= _size) {
      return std::nullopt;
   }
   return index < _inlineEntries ? _first[index] : _rest[index - _inlineEntries];
}

} // namespace Hardware
