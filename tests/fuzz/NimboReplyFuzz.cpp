// Has a daemon answer the SMBus transport with any bytes. What the transport makes of an answer
// must be what the message in it says: the value, or the one error that belongs to it. Each answer
// is a whole frame, as a transport waits for the rest of any other one.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>

#include <unistd.h>

#include "TarnRegFile/NimboSmbusTransportMethodImpl.h"
#include "tests/fuzz/Check.h"
#include "tests/support/ScriptedNimbo.h"

namespace {

using TarnRegFile::NimboSmbusTransportDescriptor;
using TarnRegFile::NimboSmbusTransportMethodImpl;
using TestSupport::ScriptedNimbo;

constexpr const char* regName = "r";

/// The daemon, and a device behind it, for as long as the process lives.
class Setting {
public:
   Setting()
      : _daemon(_path()), _device(*TarnRegFile::nimboSmbusTransportDescriptorFactory(
                                     2, 0x50, 0, TarnRegFile::TransportFlavour::nimboSmbusFlavour1),
                                  "", _registers()) {
      _daemon.scriptIs([this](const ScriptedNimbo::Frame& frame) { return _answer(frame); });
   }

   NimboSmbusTransportMethodImpl& device() { return _device; }

   /// What the next request is answered with: a frame of that kind, with the payload in it only if
   /// anybody is going to read it, and the request's id behind it if it is to have that.
   void answerIs(std::uint8_t kind, std::string_view payload, bool hasItsId) {
      const std::lock_guard lock(_mutex);
      _kind = kind;
      _payload = payload;
      _hasItsId = hasItsId;
      _daemon.clear();
   }

   /// The id that the last request had, and the payload that it was answered with.
   std::uint64_t xid() const { return _xid; }
   const std::string& sent() const { return _payload; }

private:
   static std::string _path() {
      const std::string directory = std::filesystem::temp_directory_path() /
                                    ("fuzz-nimbo-reply." + std::to_string(::getpid()));
      std::filesystem::create_directories(directory);
      ::setenv("NM_SOCKET_DIR", directory.c_str(), 1);
      ::setenv("NM_SOCKET_FILE", "s", 1);
      std::atexit([] { std::filesystem::remove_all(std::getenv("NM_SOCKET_DIR")); });
      return directory + "/s";
   }

   static TarnRegFile::Ptr<TarnRegFile::HardwareRegisterFile> _registers() {
      auto registers = Hardware::hardwareRegisterFileFactory("chip");
      TarnRegFile::HardwareRegister record;
      record.address = 0x1234;
      record.name = regName;
      record.width = 32;
      record.writable = true;
      registers->nameToRegMapIs(regName, record);
      return registers;
   }

   ScriptedNimbo::Answer _answer(const ScriptedNimbo::Frame& frame) {
      const std::lock_guard lock(_mutex);
      _xid = frame.request.xid();
      if (_kind != 2) {
         // The transport reads no further, and what it left would be the next answer's front.
         return {{ScriptedNimbo::frame(_kind, 0xFFFFFF, "")}};
      }
      if (_hasItsId) {
         Smbus::TransactionResponse id;
         id.set_xid(_xid);
         _payload += id.SerializeAsString();
      }
      return {{ScriptedNimbo::frame(2, static_cast<std::uint32_t>(_payload.size()), _payload)}};
   }

   std::mutex _mutex;
   std::uint8_t _kind = 2;
   std::string _payload;
   bool _hasItsId = false;
   std::uint64_t _xid = 0;
   ScriptedNimbo _daemon;
   NimboSmbusTransportMethodImpl _device;
};

/// How an access ended.
struct Outcome {
   int error = 0; // errno
   std::string text;
   std::uint32_t value = 0;
};

Outcome outcomeOf(Setting& setting, bool isRead) {
   Outcome outcome;
   try {
      if (isRead) {
         outcome.value = setting.device().regRead(regName);
      } else {
         setting.device().regWrite(regName, 5);
      }
   } catch (const std::system_error& error) {
      outcome.error = error.code().value();
      outcome.text = error.what();
      FUZZ_CHECK(outcome.error != 0);
   }
   return outcome;
}

void expectError(const Outcome& outcome, int error, std::string_view text) {
   FUZZ_CHECK(outcome.error == error);
   FUZZ_CHECK(outcome.text.find(text) != std::string::npos);
}

void check(const Outcome& outcome, const Setting& setting, bool isRead) {
   Smbus::TransactionResponse said;
   static_cast<void>(said.ParseFromString(setting.sent())); // what can be made out of it
   if (said.xid() != setting.xid()) {
      expectError(outcome, EINVAL, "Invalid XID received");
   } else if (said.failed()) {
      expectError(outcome, EIO, "Nimbo failure: ");
   } else if (!isRead) {
      FUZZ_CHECK(outcome.error == 0);
   } else if (said.responses_size() < 2) {
      expectError(outcome, EINVAL, "Nimbo response not found");
   } else if (const std::string& data = said.responses(1).data(); data.size() != 4) {
      expectError(outcome, EINVAL, "Invalid Nimbo response length");
   } else {
      FUZZ_CHECK(outcome.error == 0);
      for (std::size_t i = 0; i < 4; ++i) {
         FUZZ_CHECK(static_cast<std::uint8_t>(outcome.value >> (24 - 8 * i)) ==
                    static_cast<std::uint8_t>(data[i]));
      }
   }
}

} // namespace

/// The first byte: bit 0, the answer has the request's id; bit 1, it is a write that is answered;
/// the rest, if not zero, with what kind of frame.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   static Setting& setting = *new Setting; // its thread ends with the process
   if (size == 0) {
      return 0;
   }
   const bool isRead = (data[0] & 2) == 0;
   const auto kind = static_cast<std::uint8_t>(data[0] < 4 ? 2 : data[0] >> 2);
   setting.answerIs(kind, {reinterpret_cast<const char*>(data) + 1, size - 1}, (data[0] & 1) != 0);
   const Outcome outcome = outcomeOf(setting, isRead);
   if (kind != 2) {
      expectError(outcome, EINVAL, "Received invalid response from Nimbo daemon");
   } else {
      check(outcome, setting, isRead);
   }
   return 0;
}
