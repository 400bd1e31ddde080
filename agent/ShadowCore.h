#pragma once

#include <functional>

#include "TarnRegFile/SableCoreSm.h"

namespace Agent {

/// A core of the agent. It hears of changes of the table of configuration from the agent, which
/// keeps from it what would end the process, and not by itself.
class ShadowCore : public TarnRegFile::Sable::CoreSmBase {
public:
   using ReadyHandler = std::function<void(bool ready)>;

   ShadowCore(const TarnRegFile::Ptr<TarnRegFile::Sable::SableCoreBase>& model,
              const TarnRegFile::Ptr<TarnRegFile::Sable::ShadowRegisterConfig>& config,
              const TarnRegFile::Ptr<TarnRegFile::Sable::ShadowRegisterStatus>& status,
              ReadyHandler onReady)
      : CoreSmBase(model, config, status), _onReady(std::move(onReady)) {
      hasNotificationActiveIs(false);
   }

   void doOnReady(bool ready) override { _onReady(ready); }

private:
   const ReadyHandler _onReady;
};

} // namespace Agent
