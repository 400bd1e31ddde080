#include "platform/hardware/SpiEngine.h"

#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "platform/entity/Errors.h"
#include "platform/entity/TypeBuilder.h"

namespace Hardware {

namespace {

constexpr const char* nullHandle = "SPI engine must have a HwAccess";
constexpr const char* notSpi = "HwAccess '{}' is not that of an SPI device";

constexpr const char* notReady = "SPI request {}: device '{}' is not ready";
constexpr const char* noEntries = "SPI request {}: it has no entries";
constexpr const char* gap = "SPI request {}: entry {} is missing";
constexpr const char* unknownCommand = "SPI request {}: entry {} has the unknown command {:#06x}";
constexpr const char* transferFailed = "SPI request {}: {}: {}";

Ptr<const SpiHwAccess> spiHandle(const Ptr<const HwAccess>& hwAccess) {
   if (!hwAccess) {
      Platform::throwError(EINVAL, nullHandle);
   }
   Ptr<const SpiHwAccess> handle = Platform::ptrCast<const SpiHwAccess>(hwAccess);
   if (!handle) {
      Platform::throwError(EINVAL, fmt::format(notSpi, hwAccess->name()));
   }
   return handle;
}

} // namespace

SpiEngine::SpiEngine(const Ptr<const HwAccess>& hwAccess) : _hwAccess(spiHandle(hwAccess)) {}

SpiEngine::~SpiEngine() {
   beingDestroyedIs();
}

const Platform::TypeData& SpiEngine::staticType() {
   using Self = SpiEngine;
   static const Platform::TypeData type =
      Platform::TypeBuilder<Self>("Hardware::SpiEngine", Node::staticType())
         .attribute<&Self::name>("name")
         .attribute<&Self::hwAccess>("hwAccess")
         .build();
   return type;
}

SpiEngine::Outcome SpiEngine::execute(SpiEngineRequest& request) const {
   const std::uint32_t id = request.id();
   if (!_hwAccess->ready()) {
      return {ENODEV, fmt::format(notReady, id, name())};
   }
   if (request.size() == 0) {
      return {EINVAL, fmt::format(noEntries, id)};
   }
   Platform::Bytes out(request.size());
   for (std::size_t i = 0; i < out.size(); ++i) {
      const auto entry = request.cmdData(static_cast<std::uint16_t>(i));
      if (!entry) {
         return {EINVAL, fmt::format(gap, id, i)};
      }
      if (entry->command != SpiCmdData::writeByte) {
         return {EINVAL, fmt::format(unknownCommand, id, i, entry->command)};
      }
      out[i] = entry->data;
   }
   Platform::Bytes in(out.size());
   int error;
   try {
      error = _hwAccess->backend()->transfer(out, in);
   } catch (const std::exception& failure) {
      // A backend of the program's own; the queue must not stop for it.
      return {EIO, fmt::format(transferFailed, id, _hwAccess->device(), failure.what())};
   }
   if (error != 0) {
      return {error, fmt::format(transferFailed, id, _hwAccess->device(),
                                 std::generic_category().message(error))};
   }
   request.receivedIs(std::move(in));
   return {};
}

} // namespace Hardware
