#include "agent/ResultTap.h"

#include <utility>

namespace Agent {

using TarnRegFile::Ptr;
using TarnRegFile::String;

ResultTap::ResultTap(const Ptr<TarnRegFile::TransportMethodError>& notifier, ReadHandler read,
                     WriteHandler write)
   : _notifier(notifier), _read(std::move(read)), _write(std::move(write)) {}

ResultTap::~ResultTap() {
   beingDestroyedIs();
}

void ResultTap::_clearError(Result result) const {
   if (result != Result::Success && _notifier) {
      _notifier->errorIs(false);
   }
}

void ResultTap::handleReadResult(const String& regName, Result result, std::uint32_t value) {
   _clearError(result);
   if (!_isClosed) {
      const Ptr<ResultTap> held(this); // the handler may drop the transport
      _read(regName, result, value);
   }
}

void ResultTap::handleWriteResult(const String& regName, Result result) {
   _clearError(result);
   if (!_isClosed) {
      const Ptr<ResultTap> held(this);
      _write(regName, result);
   }
}

Ptr<ResultTap> tapNew(TarnRegFile::TransportMethod& transport, ResultTap::ReadHandler read,
                      ResultTap::WriteHandler write) {
   auto tap =
      Platform::make<ResultTap>(transport.errorNotifier(), std::move(read), std::move(write));
   transport.asyncHelperIs(tap);
   return tap;
}

} // namespace Agent
