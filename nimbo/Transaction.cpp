#include "nimbo/Transaction.h"

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "nimbo/Bus.h"
#include "nimbo/BusTable.h"
#include "nimbo/Frame.h"

namespace Nimbo {

namespace {

/// Requests and bytes up to which a transaction keeps its memory for the next one.
constexpr std::size_t usualRequests = 64;
constexpr std::size_t usualBytes = 4096;

} // namespace

bool Transaction::parse(std::span<const std::uint8_t> payload) {
   _begin = std::chrono::steady_clock::now();
   _response.Clear();
   _steps.clear();
   _next = 0;
   _isLarge = payload.size() > usualBytes;
   return _request.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
}

void Transaction::plan(std::shared_ptr<const BusTable> buses) {
   _buses = std::move(buses);
   _response.set_xid(_request.xid());
   _isLarge = _isLarge || requests() > usualRequests;
   std::size_t read = 0;
   if (_request.requests_size() > mostRequests) {
      _response.set_failed(true);
      _response.set_error(fmt::format("{} requests in one transaction; at most {} are possible",
                                      _request.requests_size(), mostRequests));
      return;
   }
   _steps.reserve(requests());
   for (const Smbus::Request& request : _request.requests()) {
      Step step;
      std::string reason;
      try {
         step.where = AddressWord::from(request.address());
         step.isAddressed = true;
         _check(request, step.where, read);
         step.bus = _buses->find(step.where, request.pci_bdf());
         reason = step.bus ? "" : "there is no such bus";
      } catch (const std::invalid_argument& error) {
         reason = error.what();
      }
      _steps.push_back(step);
      if (!reason.empty()) {
         // Nothing has been done yet, and nothing will be.
         _next = _steps.size() - 1;
         fail(reason);
         return;
      }
   }
   _isLarge = _isLarge || read > usualBytes;
}

void Transaction::_check(const Smbus::Request& request, const AddressWord& where,
                         std::size_t& read) {
   if (!Smbus::RequestType_IsValid(request.type())) {
      throw std::invalid_argument(
         fmt::format("request type {} is not known", static_cast<int>(request.type())));
   }
   if (!Smbus::MasterType_IsValid(request.mastertype())) {
      throw std::invalid_argument(
         fmt::format("master type {} is not known", static_cast<int>(request.mastertype())));
   }
   if (request.type() == Smbus::REQUEST_TYPE_READ) {
      if (request.length() == 0 || request.length() > longestRead) {
         throw std::invalid_argument(
            fmt::format("a read takes 1 to {} bytes, not {}", longestRead, request.length()));
      }
      read += request.length();
      if (read > mostReadInAll) {
         throw std::invalid_argument(
            fmt::format("a transaction reads at most {} bytes", mostReadInAll));
      }
      return;
   }
   if (request.length() != request.data().size()) {
      throw std::invalid_argument(fmt::format("the request says {} bytes, and carries {}",
                                              request.length(), request.data().size()));
   }
   if (const std::size_t most = longestWrite - where.offsetBytes; request.length() > most) {
      throw std::invalid_argument(
         fmt::format("a write takes at most {} bytes, not {}", most, request.length()));
   }
}

std::size_t Transaction::run() const noexcept {
   std::size_t end = _next;
   while (end < _steps.size() && _steps[end].bus == _steps[_next].bus) {
      ++end;
   }
   return end - _next;
}

std::string Transaction::shown() const {
   const Smbus::Request& next = request();
   const Step& step = _steps[_next];
   const char* const kind = next.type() == Smbus::REQUEST_TYPE_READ    ? "read"
                            : next.type() == Smbus::REQUEST_TYPE_WRITE ? "write"
                                                                       : "request";
   std::string text =
      fmt::format("{} of {} byte{}", kind, next.length(), next.length() == 1 ? "" : "s");
   if (!step.isAddressed) {
      return text;
   }
   text += fmt::format(", bus {}{}, device {:#04x}, offset {:#x}", step.where.bus,
                       step.bus ? fmt::format(" '{}'", step.bus->name()) : std::string(),
                       step.where.device, step.where.offset);
   if (step.where.controller != 0) {
      text += fmt::format(", controller {}", step.where.controller);
   }
   if (next.pci_bdf() != 0) {
      text += fmt::format(", PCI function {}", pciToString(next.pci_bdf()));
   }
   return text;
}

std::span<std::uint8_t> Transaction::responseNew(std::size_t size) {
   std::string& data = *_response.add_responses()->mutable_data();
   data.resize(size);
   return {reinterpret_cast<std::uint8_t*>(data.data()), size};
}

void Transaction::fail(std::string_view reason) {
   // Not what was made ready for this one.
   while (_response.responses_size() > static_cast<int>(_next)) {
      _response.mutable_responses()->RemoveLast();
   }
   _response.set_failed(true);
   _response.set_error(
      fmt::format("request {} of {} ({}): {}", _next + 1, requests(), shown(), reason));
   _steps.clear();
}

void Transaction::response(std::string& frame) const {
   frame.assign(frameHeaderSize, '\0');
   _response.AppendToString(&frame);
   const std::size_t length = frame.size() - frameHeaderSize;
   frame[0] = static_cast<char>(FrameKind::response);
   frame[1] = static_cast<char>(length & 0xff);
   frame[2] = static_cast<char>((length >> 8) & 0xff);
   frame[3] = static_cast<char>((length >> 16) & 0xff);
}

void Transaction::over() {
   if (_isLarge) {
      _request = Smbus::TransactionRequest();
      _response = Smbus::TransactionResponse();
      _steps = std::vector<Step>();
   }
   _steps.clear();
   _buses.reset();
}

} // namespace Nimbo
