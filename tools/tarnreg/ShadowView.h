#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "board/TransportUrl.h"
#include "platform/entity/EventLoop.h"
#include "platform/tables/TableDirectory.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/ShadowClient.h"
#include "TarnRegFile/ShadowError.h"
#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/Failure.h"

namespace TarnReg {

/// The exit code of what went wrong with a core's tables.
ExitCode codeOf(const TarnRegFile::Sable::ShadowError& error);

/// Runs `work` and turns what may go wrong with the tables into the command's failures.
template <typename Work>
auto onShadow(const Work& work) {
   try {
      return work();
   } catch (const TarnRegFile::Sable::ShadowError& error) {
      throw Failure(codeOf(error), error.what());
   }
}

/// A core, as its shared tables show it, and the list of its registers.
class ShadowView {
public:
   /// `list` is the path of the core's register list, `url` says how its owner reaches it. Throws
   /// Failure for a list that cannot be used, and what ShadowClient's constructor throws, as one.
   ShadowView(const Platform::Tables::TableDirectory& directory, const std::string& core,
              const std::string& list, const Board::TransportUrl& url);

   /// The registers, for patterns; it has no transport that could be accessed.
   Device& device() noexcept { return *_device; }

   TarnRegFile::Sable::ShadowClient& client() noexcept { return *_client; }
   Platform::Tables::TableService& service() noexcept { return _service; }
   Platform::EventLoop& loop() noexcept { return _loop; }

   /// Throws Failure (usage) when the value has bits that the register does not.
   void requireFits(const TarnRegFile::HardwareRegister& record, std::uint32_t value) const;

private:
   Platform::EventLoop _loop;
   Platform::Tables::TableService _service;
   const Board::TransportUrl _url;
   std::unique_ptr<Device> _device;
   std::unique_ptr<TarnRegFile::Sable::ShadowClient> _client;
};

} // namespace TarnReg
