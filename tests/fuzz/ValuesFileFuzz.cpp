// Makes a mock transport over any bytes as its values file. It must hold exactly the values that
// the rules of the file say, or refuse what they refuse; what it persists must read back the same.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "TarnRegFile/MockTransportMethodImpl.h"
#include "tests/fuzz/Check.h"
#include "tests/support/MemoryFile.h"

namespace {

using TarnRegFile::MockTransportMethodImpl;
using Values = std::map<std::uint32_t, std::uint32_t>;

enum class Refusal { none, noNumber, outOfRange };

/// A decimal number at the start of `text`, as the C library's conversion sees it.
Refusal number(const std::string& text, std::uint32_t& value) {
   char* end = nullptr;
   errno = 0;
   value = static_cast<std::uint32_t>(std::strtoul(text.c_str(), &end, 10));
   if (end == text.c_str()) {
      return Refusal::noNumber;
   }
   return errno == ERANGE ? Refusal::outOfRange : Refusal::none;
}

/// The values that the file holds.
Refusal reference(std::string text, Values& values) {
   bool header = true;
   while (!text.empty()) {
      const std::size_t end = text.find('\n');
      const std::string line = text.substr(0, end);
      text = end == std::string::npos ? "" : text.substr(end + 1);
      const std::size_t comma = line.find(',');
      if (!std::exchange(header, false) && comma != std::string::npos) {
         std::uint32_t address = 0;
         std::uint32_t value = 0;
         Refusal refusal = number(line.substr(0, comma), address);
         if (refusal == Refusal::none) {
            refusal = number(line.substr(comma + 1), value);
         }
         if (refusal != Refusal::none) {
            return refusal;
         }
         values[address] = value;
      }
   }
   return Refusal::none;
}

Values persisted(const TestSupport::MemoryFile& file) {
   const std::string text = file.content();
   FUZZ_CHECK(text.starts_with("Address,Value\n"));
   FUZZ_CHECK(text.ends_with('\n'));
   Values values;
   FUZZ_CHECK(reference(text, values) == Refusal::none);
   std::string expectedLength = "Address,Value\n";
   for (const auto& [address, value] : values) {
      expectedLength += std::to_string(address) + "," + std::to_string(value) + "\n";
   }
   FUZZ_CHECK(text.size() == expectedLength.size());
   return values;
}

const auto model = [] {
   auto made = Hardware::hardwareRegisterFileFactory("fuzz");
   made->addrBlockSizeIs(4);
   Hardware::HardwareRegister record;
   record.name = "R";
   record.address = 4;
   record.width = 32;
   made->nameToRegMapIs(record.name, record);
   return made;
}();

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   const std::string text(reinterpret_cast<const char*>(data), size);
   Values expected;
   const Refusal refusal = reference(text, expected);
   const TestSupport::MemoryFile file(text);
   ::setenv("REG_VALUES_FILE", file.path().c_str(), 1);
   std::optional<MockTransportMethodImpl> mock;
   try {
      mock.emplace("", model);
   } catch (const std::invalid_argument& error) {
      FUZZ_CHECK(refusal == Refusal::noNumber && error.what() == std::string_view("stoul"));
   } catch (const std::out_of_range& error) {
      FUZZ_CHECK(refusal == Refusal::outOfRange && error.what() == std::string_view("stoul"));
   }
   FUZZ_CHECK(file.content() == text);
   FUZZ_CHECK(mock.has_value() == (refusal == Refusal::none));
   if (!mock) {
      return 0;
   }
   mock->regWriteBlock("R", nullptr, 0);
   FUZZ_CHECK(persisted(file) == expected);

   MockTransportMethodImpl next("", model);
   const auto held = expected.find(4);
   FUZZ_CHECK(next.regRead("R") == (held == expected.end() ? 0 : held->second));
   next.regWrite("R", 0x12345678);
   next.regWriteBlock("R", nullptr, 0);
   expected[4] = 0x12345678;
   FUZZ_CHECK(persisted(file) == expected);
   return 0;
}
