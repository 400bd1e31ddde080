// Keeps one device open and accesses it as it is told, a line each on standard input:
//
//    read NAME                    "0x12345678"
//    write NAME VALUE             "done"
//    readarray NAME COUNT         "0x1 0x2 ..."
//    writearray NAME VALUE...     "done"
//
// Each is answered with one line, which for a failed access is "failed: " and the reason. An end of
// the input ends it.

#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "board/FailureSink.h"
#include "board/Platforms.h"
#include "board/TransportUrl.h"
#include "platform/trace/Trace.h"
#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/TransportMethodError.h"

namespace {

std::uint32_t word(const std::string& text) {
   return static_cast<std::uint32_t>(std::stoul(text, nullptr, 0));
}

std::string obey(TarnRegFile::TransportMethod& device, const std::string& line) {
   std::istringstream words(line);
   std::string verb;
   std::string name;
   std::string value;
   words >> verb >> name;
   if (verb == "read") {
      return fmt::format("{:#x}", device.regRead(name));
   }
   if (verb == "write" && words >> value) {
      device.regWrite(name, word(value));
      return "done";
   }
   if (verb == "readarray" && words >> value) {
      const TarnRegFile::Bytes bytes = device.regReadArray(name, word(value));
      std::string answer;
      for (std::size_t at = 0; at < bytes.size(); at += sizeof(std::uint32_t)) {
         std::uint32_t element = 0;
         std::memcpy(&element, bytes.data() + at, sizeof element);
         answer += fmt::format("{}{:#x}", at == 0 ? "" : " ", element);
      }
      return answer;
   }
   if (verb == "writearray") {
      TarnRegFile::Bytes bytes;
      while (words >> value) {
         const std::uint32_t element = word(value);
         const auto* first = reinterpret_cast<const std::uint8_t*>(&element);
         bytes.insert(bytes.end(), first, first + sizeof element);
      }
      device.regWriteArray(name, bytes);
      return "done";
   }
   throw std::invalid_argument("no command: " + line);
}

} // namespace

int main(int argc, char** argv) {
   if (argc != 3) {
      std::cerr << "usage: vm_register_client LIST URL\n";
      return 2;
   }
   try {
      const auto failures = std::make_shared<Board::FailureSink>(nullptr);
      Platform::Trace::sinkIs(failures);
      Board::Platforms platforms;
      const auto device = TarnRegFile::transportMethodFactory("device");
      device->init(Board::TransportUrl(argv[2]).descriptor(&platforms), argv[1]);
      std::cout << "open" << std::endl;
      for (std::string line; std::getline(std::cin, line);) {
         const std::string answer = obey(*device, line);
         const auto notifier = device->errorNotifier();
         std::string name;
         std::istringstream(line) >> name >> name;
         std::cout << (notifier->error() ? "failed: " + failures->takeReason(name) : answer)
                   << std::endl;
         notifier->errorIs(false);
      }
      device->handleDeletion();
   } catch (const std::exception& error) {
      std::cerr << "vm_register_client: " << error.what() << '\n';
      return 1;
   }
   return 0;
}
