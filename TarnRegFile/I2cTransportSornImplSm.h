#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/entity/AttributeId.h"
#include "platform/entity/Node.h"
#include "platform/entity/Notifiee.h"
#include "platform/entity/OwnedNotifiee.h"
#include "platform/hardware/Sorn.h"
#include "TarnRegFile/AsyncHelper.h"
#include "TarnRegFile/Export.h"
#include "TarnRegFile/I2cTransportRequest.h"
#include "TarnRegFile/RegAccessResult.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/Types.h"

namespace TarnRegFile {

/// The asynchronous I2C transport at work: turns accesses into requests of the access manager,
/// keeps those in flight, and hands each result to the async helper. A request that never ends
/// stays until the state machine goes; only the time-out of its Hardware::Sorn bounds it.
///
/// An entity, held through Ptr, on the access manager's event loop, where the results arrive. Its
/// owner is the I2cTransportSornImpl, which takes it down.
class TARN_API I2cTransportSornImplSm : public Platform::Node {
public:
   static constexpr Platform::AttributeId asyncHelperAttr{"asyncHelper"};
   static constexpr Platform::AttributeId i2cTransportRequestAttr{"i2cTransportRequest"};

   /// What a request is found by.
   using Key = Ptr<const Hardware::SornRequest>;

   /// Throws std::system_error EINVAL (generic category) when `sorn` or `regFile` is null.
   I2cTransportSornImplSm(const Ptr<Hardware::Sorn>& sorn, std::uint32_t devId,
                          const Ptr<const RegFileHelper>& regFile);
   ~I2cTransportSornImplSm() override;

   static const Platform::TypeData& staticType();
   const Platform::TypeData& typeData() const override { return staticType(); }

   const Ptr<Hardware::Sorn>& sorn() const noexcept { return _sorn; }

   /// The device's address on the bus, 7 bits.
   std::uint32_t devId() const noexcept { return _devId; }

   const Ptr<const RegFileHelper>& regFile() const noexcept { return _regFile; }

   /// Where results go; null drops them. A helper that is set later hears of what is in flight.
   const Ptr<AsyncHelperBase>& asyncHelper() const noexcept { return _asyncHelper; }
   void asyncHelperIs(const Ptr<AsyncHelperBase>& asyncHelper);

   // The requests in flight. Adding and removing one publishes the change at its key.

   Ptr<I2cTransportRequest> i2cTransportRequest(const Key& key) const;
   std::size_t i2cTransportRequests() const noexcept { return _requests.size(); }

   /// A new entry, whose result will be told when `i2cRequest` ends. Throws RangeError when there
   /// is one of that key; std::system_error (generic category) EINVAL for null, ESHUTDOWN when the
   /// state machine was taken down.
   Ptr<I2cTransportRequest> i2cTransportRequestIs(const Ptr<Hardware::SornRequest>& i2cRequest,
                                                  std::string_view regName,
                                                  std::uint16_t regAddress, std::uint32_t regWidth);

   /// Removes the entry and returns it; null when there is none. Its result is never told, and it
   /// is taken back from the access manager when the caller drops it.
   Ptr<I2cTransportRequest> i2cTransportRequestDel(const Key& key);
   void i2cTransportRequestDelAll();

   /// A new entry for an access of that register, with a request of the access manager that is not
   /// described yet. Throws std::system_error (generic category): ENOENT for an unknown name;
   /// EINVAL "Unexpected width of register {} (got {} bits, expected at most {} bits)"; ESHUTDOWN
   /// when the state machine was taken down.
   Ptr<I2cTransportRequest> newTransportRequest(const String& regName);

   /// Submits the read of four bytes at the register, whatever its width. Throws what
   /// newTransportRequest() throws; RangeError "U7::value < 0 or > 0x7f not allowed" for a device
   /// id that is no 7-bit address, and then the entry stays; and, without an entry, what the access
   /// manager has against the request.
   void sornRead(const String& regName);

   /// Submits the write of `value`: of its low 16 bits, as two bytes, to a register of 16 bits; as
   /// four bytes to any other. Throws as sornRead().
   void sornWrite(const String& regName, std::uint32_t value);

   /// sornRead() and sornWrite() of a register whose record has been looked up before, under
   /// `regName`.
   void readResolved(const String& regName, const HardwareRegister& record);
   void writeResolved(const String& regName, const HardwareRegister& record, std::uint32_t value);

   /// The request whose result the helper is being told; null at other times. Its `i2cRequest`
   /// has the access manager's status and errno of a failure.
   const Ptr<I2cTransportRequest>& told() const noexcept { return _told; }

   /// Ends the service for good; harmless when repeated. Requests in flight are taken back, and
   /// nothing is told of them.
   void teardown() noexcept;

private:
   /// The reactor of one request.
   class Reactor : public Platform::Notifiee {
   public:
      Reactor(I2cTransportSornImplSm& sm, I2cTransportRequest& request)
         : _sm(sm), _request(request) {}
      void onChange(const Platform::Change& change) override;

   private:
      I2cTransportSornImplSm& _sm;
      I2cTransportRequest& _request;
   };

   struct Entry {
      Ptr<I2cTransportRequest> request;
      Platform::OwnedNotifiee<Reactor> reactor; // gone before the request
   };

   void _checkInService() const;
   Ptr<I2cTransportRequest> _requestFor(const String& regName, const HardwareRegister& record);
   std::vector<Key> _keys() const;
   std::uint64_t _accessWord(const I2cTransportRequest& request) const;
   template <typename Describe>
   void _submit(const I2cTransportRequest& request, const Describe& describe);
   void _onStatus(I2cTransportRequest& request);
   void _tell(const Ptr<I2cTransportRequest>& request, RegAccessResult result);

   Ptr<Hardware::Sorn> _sorn;
   const std::uint32_t _devId;
   Ptr<const RegFileHelper> _regFile;
   Ptr<AsyncHelperBase> _asyncHelper;
   std::unordered_map<Key, Entry> _requests;
   Ptr<I2cTransportRequest> _told;
   bool _isTornDown = false;
};

} // namespace TarnRegFile
