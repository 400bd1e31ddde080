#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/trace/Sink.h"

namespace Board {

/// Keeps the reason of the last failed access, which the library says in a trace record and
/// nowhere else, so that the command can put it in its own words. Everything passes on to the
/// sink that the user asked for, if any.
class FailureSink : public Platform::Trace::Sink {
public:
   explicit FailureSink(std::shared_ptr<Platform::Trace::Sink> next) : _next(std::move(next)) {}

   void write(const Platform::Trace::Record& record) override;

   /// The last reason, which is then forgotten, without the words that say it was an access of
   /// the register `name`; empty when there was none.
   std::string takeReason(std::string_view name);

private:
   std::shared_ptr<Platform::Trace::Sink> _next;
   std::string _reason;
};

} // namespace Board
