#include "TarnRegFile/NimboSmbusTransportMethodImpl.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>

#include <fmt/format.h>

#include "nimbo/smbus.pb.h"
#include "platform/entity/Errors.h"
#include "platform/entity/Fatal.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/Utils.h"

namespace TarnRegFile {

namespace {

constexpr const char* sourceName = "TarnRegFile/NimboSmbusTransportMethodImpl";
TARN_TRACE_SOURCE(traceSource, sourceName);

constexpr const char* connectText = "Error connecting to Nimbo daemon";
constexpr const char* flavourText = "Unsupported Nimbo flavour";
constexpr const char* sendText = "Error sending message to Nimbo daemon";
constexpr const char* headerText = "Error receiving message from Nimbo daemon";
constexpr const char* kindText = "Received invalid response from Nimbo daemon";
constexpr const char* payloadText = "Error receiving data from Nimbo daemon";
constexpr const char* xidText = "Invalid XID received";
constexpr const char* failureText = "Nimbo failure: {}";
constexpr const char* noResponseText = "Nimbo response not found";
constexpr const char* responseLengthText = "Invalid Nimbo response length";

constexpr const char* directoryVariable = "NM_SOCKET_DIR";
constexpr const char* defaultDirectory = "/var/run/platform";
constexpr const char* fileVariable = "NM_SOCKET_FILE";
constexpr const char* defaultFile = "smbus";

constexpr std::uint8_t requestKind = 1;
constexpr std::uint8_t responseKind = 2;
// A request's upper length byte is always 0. No request of this transport comes near it.
constexpr std::uint32_t lengthModulus = 0x10000;

constexpr unsigned int devAddrShift = 32;
constexpr unsigned int busIdShift = 39;
constexpr unsigned int accelIdShift = 46;
constexpr std::uint64_t oneOffsetByte = std::uint64_t{1} << 57;
constexpr std::uint64_t twoOffsetBytes = std::uint64_t{1} << 58;
constexpr std::uint64_t fourOffsetBytes = std::uint64_t{1} << 59;

constexpr std::uint32_t valueSize = 4;

// --- Frames

/// Kind in the first byte, length of the payload in the other three, least significant first.
using FrameHeader = std::array<char, 4>;

FrameHeader headerOf(std::uint32_t word) {
   FrameHeader header;
   for (std::size_t i = 0; i < header.size(); ++i) {
      header[i] = static_cast<char>(word >> (8 * i));
   }
   return header;
}

std::uint32_t wordOf(const FrameHeader& header) {
   std::uint32_t word = 0;
   for (std::size_t i = 0; i < header.size(); ++i) {
      word |= std::uint32_t{static_cast<std::uint8_t>(header[i])} << (8 * i);
   }
   return word;
}

// --- Transaction ids

/// The minimal standard generator with a state that threads may share. One that draws while another
/// one does takes the next number of the same sequence; neither waits.
class IdGenerator {
public:
   using result_type = std::uint32_t;
   static constexpr result_type min() { return 1; }
   static constexpr result_type max() { return modulus - 1; }

   IdGenerator() {
      std::random_device device("default");
      const std::uint32_t seed = device() % modulus;
      _state = seed == 0 ? 1 : seed;
   }

   result_type operator()() {
      result_type state = _state.load(std::memory_order_relaxed);
      result_type next;
      do {
         next = static_cast<result_type>(std::uint64_t{state} * multiplier % modulus);
      } while (!_state.compare_exchange_weak(state, next, std::memory_order_relaxed));
      return next;
   }

   static constexpr result_type modulus = 0x7FFFFFFF;

private:
   static constexpr std::uint32_t multiplier = 16807;

   std::atomic<result_type> _state;
};

std::uint64_t newTransactionId() {
   static IdGenerator generator;
   return std::uniform_int_distribution<std::uint32_t>(1, IdGenerator::modulus)(generator);
}

// --- The connection

int nimboConnect() {
   const char* directory = std::getenv(directoryVariable);
   const char* file = std::getenv(fileVariable);
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   // What does not fit is left out; the last byte stays zero.
   fmt::format_to_n(address.sun_path, sizeof(address.sun_path) - 1, "{}/{}",
                    directory ? directory : defaultDirectory, file ? file : defaultFile);

   const Utils::UnixFdRes connection(::socket(AF_UNIX, SOCK_STREAM, 0));
   if (connection.fd() < 0) {
      return -1;
   }
   TARN_TRACE(traceSource, 8, "nimboConnect", "Connecting to Nimbo daemon at '{}'",
              static_cast<const char*>(address.sun_path));
   if (::connect(connection.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) <
       0) {
      return -1;
   }
   TARN_TRACE(traceSource, 8, "nimboConnect", "Successfully connected to Nimbo daemon");
   const int fd = connection.fd();
   connection.release();
   return fd;
}

void sendAll(int fd, const std::string& buf) {
   std::size_t sent = 0;
   // Ends each frame, be it sent or not. On a socket it has no effect, and fails.
   const auto flush = [fd] { static_cast<void>(::fsync(fd)); };
   // By reference below: a copy would be allocated for each call.
   const auto sendRest = [&] { return ::send(fd, buf.data() + sent, buf.size() - sent, 0); };
   while (sent < buf.size()) {
      const long result = Utils::syscallAutoRetry(std::cref(sendRest), true, true);
      if (result < 0) {
         const int error = errno;
         flush();
         errno = error;
         Platform::throwErrno(sendText);
      }
      sent += static_cast<std::size_t>(result);
   }
   flush();
}

/// Whether all of it came. Goes on asking when there is nothing, which is what a connection that
/// the daemon has closed says for ever.
bool recvAll(int fd, void* buf, std::size_t len) {
   std::size_t received = 0;
   const auto receiveRest = [&] {
      return ::recv(fd, static_cast<char*>(buf) + received, len - received, 0);
   };
   while (received < len) {
      const long result = Utils::syscallAutoRetry(std::cref(receiveRest), true, true);
      if (result < 0) {
         return false;
      }
      received += static_cast<std::size_t>(result);
   }
   return true;
}

void doNimboTransaction(int fd, Smbus::TransactionRequest& req, Smbus::TransactionResponse* resp) {
   // Kept from one transaction to the next, so that they allocate nothing once they are large
   // enough.
   thread_local std::string sendBuffer;
   thread_local std::string receiveBuffer;

   const std::uint64_t xid = newTransactionId();
   req.set_xid(xid);

   FrameHeader header =
      headerOf(requestKind | static_cast<std::uint32_t>(req.ByteSizeLong() % lengthModulus) << 8);
   sendBuffer.assign(header.data(), header.size());
   req.AppendToString(&sendBuffer);
   TARN_TRACE(traceSource, 9, "doNimboTransaction", "Sending to Nimbo daemon ({} bytes)",
              sendBuffer.size());
   sendAll(fd, sendBuffer);

   TARN_TRACE(traceSource, 9, "doNimboTransaction", "Receiving Nimbo's protobuf header");
   // The descriptor's number stands where the header is to come. It takes the header's place when
   // receiving fails: neither outcome of recvAll is negative, so such a failure is told as what
   // the number looks like, which is an invalid response for most descriptors.
   header = headerOf(static_cast<std::uint32_t>(fd));
   const int headerResult = recvAll(fd, header.data(), header.size()) ? 1 : 0;
   if (headerResult < 0) {
      Platform::throwErrno(headerText);
   }
   const std::uint32_t word = wordOf(header);
   if ((word & 0xFF) != responseKind) {
      Platform::throwError(EINVAL, kindText);
   }

   receiveBuffer.resize(word >> 8);
   TARN_TRACE(traceSource, 9, "doNimboTransaction", "Receiving Nimbo daemon's reply ({} bytes)",
              receiveBuffer.size());
   if (!recvAll(fd, receiveBuffer.data(), receiveBuffer.size())) {
      Platform::throwErrno(payloadText);
   }

   resp->Clear();
   // What can be made out of a damaged message counts; the id tells whether it is this one's.
   static_cast<void>(
      resp->ParseFromArray(receiveBuffer.data(), static_cast<int>(receiveBuffer.size())));
   if (resp->xid() != xid) {
      Platform::throwError(EINVAL, xidText);
   }
}

// --- Messages

/// The value of a generated enumeration. One that it does not have ends the process.
template <typename Enum, bool (*isValid)(int)>
Enum checked(int value, const char* assertion) {
   if (!isValid(value)) {
      Platform::fatalAssertion(sourceName, "checked", assertion);
   }
   return static_cast<Enum>(value);
}

/// Adds a request with what all of them have.
Smbus::Request& addRequest(Smbus::TransactionRequest& transaction, std::uint64_t address, int type,
                           int mastertype, std::uint32_t length, std::uint32_t pciBdf) {
   Smbus::Request& request = *transaction.add_requests();
   request.set_address(address);
   request.set_type(checked<Smbus::RequestType, Smbus::RequestType_IsValid>(
      type, "::Smbus::RequestType_IsValid(value)"));
   request.set_mastertype(checked<Smbus::MasterType, Smbus::MasterType_IsValid>(
      mastertype, "::Smbus::MasterType_IsValid(value)"));
   request.set_length(length);
   request.set_pci_bdf(pciBdf);
   return request;
}

char byteOf(std::uint32_t value, unsigned int index) {
   return static_cast<char>(value >> (8 * index));
}

void throwIfFailed(const Smbus::TransactionResponse& response) {
   if (response.failed()) {
      Platform::throwError(EIO, fmt::format(failureText, response.error()));
   }
}

} // namespace

NimboSmbusTransportMethodImpl::NimboSmbusTransportMethodImpl(
   const NimboSmbusTransportDescriptor& desc, const char* chipName,
   const Ptr<HardwareRegisterFile>& regFile)
   : BaseTransportMethodImpl(chipName, 1, regFile) {
   nimboFd = nimboConnect();
   if (nimboFd < 0) {
      Platform::throwErrno(connectText);
   }
   switch (desc.transportFlavour()) {
   case TransportFlavour::nimboSmbusFlavour1:
      mastertype = Smbus::MASTER_TYPE_BLOCK;
      break;
   case TransportFlavour::nimboSmbusFlavour2:
      mastertype = Smbus::MASTER_TYPE_WORD;
      break;
   default:
      Platform::throwError(EINVAL, flavourText);
   }
   busId = desc.busId();
   devAddr = desc.devAddr();
   accelId = desc.accelId();
   if (desc.pciAddr()) {
      pciAddr = *desc.pciAddr();
   }
   pciBdf = std::uint32_t{pciAddr.domain} << 16 |
            std::uint32_t{static_cast<std::uint16_t>(pciAddr.bus << 8)} |
            std::uint32_t{static_cast<std::uint8_t>(pciAddr.device << 3)} |
            (std::uint32_t{pciAddr.function} & 7);
}

NimboSmbusTransportMethodImpl::~NimboSmbusTransportMethodImpl() = default;

std::uint32_t NimboSmbusTransportMethodImpl::regRead(const char* regName) {
   return _read(helper->registerByName(regName).address);
}

void NimboSmbusTransportMethodImpl::regWrite(const char* regName, std::uint32_t value) {
   _write(helper->registerByName(regName).address, value);
}

std::uint32_t NimboSmbusTransportMethodImpl::regReadResolved(const String&,
                                                             const HardwareRegister& reg) {
   return _read(reg.address);
}

void NimboSmbusTransportMethodImpl::regWriteResolved(const String&, const HardwareRegister& reg,
                                                     std::uint32_t value) {
   _write(reg.address, value);
}

const std::type_info& NimboSmbusTransportMethodImpl::handleAccessType() const noexcept {
   return typeid(NimboSmbusTransportMethodImpl);
}

std::uint32_t NimboSmbusTransportMethodImpl::_read(std::uint32_t address) {
   // First the register pointer, whose low byte is the data of a write; then what is there.
   Smbus::TransactionRequest transaction;
   const char low = byteOf(address, 0);
   addRequest(transaction, _addressWord(address >> 8), Smbus::REQUEST_TYPE_WRITE, mastertype, 1,
              pciBdf)
      .set_data(&low, 1);
   addRequest(transaction, _addressWord(0), Smbus::REQUEST_TYPE_READ, mastertype, valueSize,
              pciBdf);

   Smbus::TransactionResponse response;
   doNimboTransaction(nimboFd, transaction, &response);
   throwIfFailed(response);
   if (response.responses_size() < transaction.requests_size()) {
      Platform::throwError(EINVAL, noResponseText);
   }
   const std::string& data = response.responses(1).data();
   if (data.size() != valueSize) {
      Platform::throwError(EINVAL, responseLengthText);
   }
   std::uint32_t value = 0;
   for (const char byte : data) {
      value = value << 8 | static_cast<std::uint8_t>(byte);
   }
   return value;
}

void NimboSmbusTransportMethodImpl::_write(std::uint32_t address, std::uint32_t value) {
   Smbus::TransactionRequest transaction;
   const std::array<char, 1 + valueSize> data{byteOf(address, 0), byteOf(value, 3),
                                              byteOf(value, 2), byteOf(value, 1), byteOf(value, 0)};
   addRequest(transaction, _addressWord(address >> 8), Smbus::REQUEST_TYPE_WRITE, mastertype,
              static_cast<std::uint32_t>(data.size()), pciBdf)
      .set_data(data.data(), data.size());

   Smbus::TransactionResponse response;
   doNimboTransaction(nimboFd, transaction, &response);
   throwIfFailed(response);
}

std::uint64_t NimboSmbusTransportMethodImpl::_addressWord(std::uint32_t offset) const noexcept {
   // Nothing is masked: what does not fit in its place runs into the next one, as clients know it.
   return std::uint64_t{offset} | std::uint64_t{devAddr} << devAddrShift |
          std::uint64_t{busId} << busIdShift | std::uint64_t{accelId} << accelIdShift |
          (offset <= 0xFF     ? oneOffsetByte
           : offset < 0x10000 ? twoOffsetBytes
                              : fourOffsetBytes);
}

} // namespace TarnRegFile
