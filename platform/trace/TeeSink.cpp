#include "platform/trace/TeeSink.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

namespace Platform::Trace {

namespace {

template <typename Operation>
void forEach(const std::vector<std::shared_ptr<Sink>>& sinks, Operation operation) {
   std::exception_ptr first;
   for (const std::shared_ptr<Sink>& sink : sinks) {
      try {
         operation(*sink);
      } catch (...) {
         if (!first) {
            first = std::current_exception();
         }
      }
   }
   if (first) {
      std::rethrow_exception(first);
   }
}

} // namespace

TeeSink::TeeSink(std::vector<std::shared_ptr<Sink>> sinks) : _sinks(std::move(sinks)) {
   if (std::find(_sinks.begin(), _sinks.end(), nullptr) != _sinks.end()) {
      throw std::invalid_argument("TeeSink: a sink is null");
   }
}

TeeSink::~TeeSink() = default;

void TeeSink::write(const Record& record) {
   forEach(_sinks, [&](Sink& sink) { sink.write(record); });
}

void TeeSink::flush() {
   forEach(_sinks, [](Sink& sink) { sink.flush(); });
}

} // namespace Platform::Trace
