#include "nimbo/FairQueue.h"

#include <algorithm>

namespace Nimbo {

std::uint64_t FairQueue::_startOf(Flow& flow, std::size_t requests) {
   const std::uint64_t start = std::max(_time, flow.end(_serial));
   flow.endIs(_serial, start + requests);
   return start;
}

void FairQueue::pass(Flow& flow, std::size_t requests) {
   _time = _startOf(flow, requests);
}

void FairQueue::push(Transaction& transaction, Flow& flow, std::size_t requests) {
   _waiting.push_back({_startOf(flow, requests), _arrivals++, &transaction});
   std::push_heap(_waiting.begin(), _waiting.end(), _isLater);
}

Transaction& FairQueue::take() noexcept {
   std::pop_heap(_waiting.begin(), _waiting.end(), _isLater);
   const Entry entry = _waiting.back();
   _waiting.pop_back();
   _time = std::max(_time, entry.start);
   return *entry.transaction;
}

} // namespace Nimbo
