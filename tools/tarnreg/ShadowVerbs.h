#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "board/TransportUrl.h"
#include "platform/entity/EventLoop.h"
#include "platform/tables/TableDirectory.h"
#include "platform/tables/TableService.h"
#include "TarnRegFile/ShadowClient.h"
#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/Pace.h"
#include "tools/tarnreg/Report.h"

/// What `tarnreg shadow` does with a core that another process owns: everything through its shared
/// tables, nothing on its bus.
namespace TarnReg {

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

/// Lists the registers that match `patterns`, all of them without patterns: what each holds, what
/// it is wished to hold, and whether these differ.
void listShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report);

/// Prints what the registers that match `patterns` hold.
void getShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report);

/// How setShadow() goes about it.
struct ShadowSetOptions {
   bool wait = false; ///< until all of it is held
   Pace::Clock::duration timeout = std::chrono::seconds(10);
};

/// Wishes "NAME=VALUE" assignments, a pattern on the left for each register that it matches.
/// Everything is checked before the first wish: with one bad assignment there is none. What is not
/// held in time is a failure (timeout) each; the wishes stand.
void setShadow(ShadowView& view, const std::vector<std::string>& assignments,
               const ShadowSetOptions& options, Report& report);

/// Takes back the wishes for the registers that match `patterns`, and prints what they were.
void unsetShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report);

/// How watchShadow() goes about it.
struct ShadowWatchOptions {
   std::uint64_t count = 0;                           ///< changes; 0: no end
   std::optional<Pace::Clock::duration> timeout = {}; ///< for all of them; none: no end
};

/// Prints what the registers that match `patterns`, all of them without patterns, hold, and then
/// what they change to, until there were `count` changes, or the time is over, or the process is
/// interrupted. Throws Failure (timeout) when `count` did not come in time.
void watchShadow(ShadowView& view, const std::vector<std::string>& patterns,
                 const ShadowWatchOptions& options, Report& report);

/// Prints the registers that do not hold what they are wished to, of those that match `patterns` or
/// of all, and fails when there is any.
void diffShadow(ShadowView& view, const std::vector<std::string>& patterns, Report& report);

} // namespace TarnReg
