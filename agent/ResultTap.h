#pragma once

#include <cstdint>
#include <functional>

#include "TarnRegFile/AsyncHelper.h"
#include "TarnRegFile/TransportMethod.h"

namespace Agent {

/// Takes the results of one transport to whoever is interested, with the transport's sticky error
/// flag dealt with: it is cleared as soon as a failed result has been told, so that it makes no
/// failures of the accesses that follow.
///
/// Made by tapNew(), and kept by its transport. close() silences it: what is in flight then ends
/// unheard.
class ResultTap : public TarnRegFile::AsyncHelperBase {
public:
   using Result = TarnRegFile::RegAccessResult;
   using ReadHandler =
      std::function<void(const TarnRegFile::String& regName, Result result, std::uint32_t value)>;
   using WriteHandler = std::function<void(const TarnRegFile::String& regName, Result result)>;

   ResultTap(const TarnRegFile::Ptr<TarnRegFile::TransportMethodError>& notifier, ReadHandler read,
             WriteHandler write);
   ~ResultTap() override;

   void handleReadResult(const TarnRegFile::String& regName, Result result,
                         std::uint32_t value) override;
   void handleWriteResult(const TarnRegFile::String& regName, Result result) override;

   void close() noexcept { _isClosed = true; }

private:
   void _clearError(Result result) const;

   const TarnRegFile::Ptr<TarnRegFile::TransportMethodError> _notifier;
   const ReadHandler _read;
   const WriteHandler _write;
   bool _isClosed = false;
};

/// A tap, installed on `transport` in place of the helper there.
TarnRegFile::Ptr<ResultTap> tapNew(TarnRegFile::TransportMethod& transport,
                                   ResultTap::ReadHandler read, ResultTap::WriteHandler write);

} // namespace Agent
