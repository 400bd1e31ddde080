#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "nimbo/smbus.pb.h"

namespace TestSupport {

/// Builds what clients of the SMBus daemon send.
struct SmbusWhere {
   unsigned bus = 0;
   unsigned device = 0x50;
   std::uint32_t offset = 0;
   unsigned offsetBytes = 1;
   unsigned controller = 0;
   std::uint32_t pciBdf = 0;

   std::uint64_t word() const {
      const std::uint64_t size = offsetBytes == 1 ? 1 : offsetBytes == 2 ? 2 : 4;
      return std::uint64_t{offset} | std::uint64_t{device} << 32 | std::uint64_t{bus} << 39 |
             std::uint64_t{controller} << 46 | size << 57;
   }
};

/// A transaction that grows request by request:
///
///     SmbusRequests(7).read({.bus = 3, .offset = 0x10}, 4).write({.bus = 3}, {1, 2}).frame()
class SmbusRequests {
public:
   explicit SmbusRequests(std::uint64_t xid = 1) { _message.set_xid(xid); }

   SmbusRequests& read(const SmbusWhere& where, std::size_t length) {
      _add(where, Smbus::REQUEST_TYPE_READ).set_length(static_cast<std::uint32_t>(length));
      return *this;
   }

   SmbusRequests& write(const SmbusWhere& where, const std::vector<std::uint8_t>& data) {
      Smbus::Request& request = _add(where, Smbus::REQUEST_TYPE_WRITE);
      request.set_length(static_cast<std::uint32_t>(data.size()));
      request.set_data(std::string(data.begin(), data.end()));
      return *this;
   }

   /// The latest request, for what the above cannot say.
   Smbus::Request& last() { return *_message.mutable_requests(_message.requests_size() - 1); }
   Smbus::TransactionRequest& message() { return _message; }

   std::string payload() const { return _message.SerializeAsString(); }
   std::string frame() const { return framed(1, payload()); }

   /// Any bytes as a frame of any kind.
   static std::string framed(unsigned kind, std::string_view payload) {
      std::string frame{static_cast<char>(kind), static_cast<char>(payload.size() & 0xff),
                        static_cast<char>((payload.size() >> 8) & 0xff),
                        static_cast<char>((payload.size() >> 16) & 0xff)};
      return frame.append(payload);
   }

   static std::span<const std::uint8_t> bytes(std::string_view text) {
      return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
   }

private:
   Smbus::Request& _add(const SmbusWhere& where, Smbus::RequestType type) {
      Smbus::Request& request = *_message.add_requests();
      request.set_type(type);
      request.set_address(where.word());
      request.set_pci_bdf(where.pciBdf);
      return request;
   }

   Smbus::TransactionRequest _message;
};

} // namespace TestSupport
