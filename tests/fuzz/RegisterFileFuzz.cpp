// Loads any bytes as a register list. What loads must be a model in which everything fits together,
// and can be listed and dumped; what does not must be refused with one of the documented errors.
// The checker must find an error in exactly those lists that do not load.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/trace/Trace.h"
#include "TarnRegFile/ArrayExpansion.h"
#include "TarnRegFile/RegisterFileChecker.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/TransportMethodImpl.h"
#include "tests/fuzz/Check.h"
#include "tests/support/MemoryFile.h"

namespace {

using TarnRegFile::HardwareRegister;
using TarnRegFile::HardwareRegisterFile;
using TarnRegFile::Ptr;
using TarnRegFile::String;

/// Arrays of more registers than this in one list only cost time.
constexpr std::uint64_t maxRegisters = 20'000;

/// The part of a line that is searched for ranges.
std::string_view searched(std::string_view line) {
   const std::size_t first = line.find(',');
   if (first == std::string_view::npos) {
      return {};
   }
   std::size_t commas = 0;
   for (std::size_t i = 0; i < line.size(); ++i) {
      if (line[i] == ',' && ++commas == 5) {
         return line.substr(first, i);
      }
   }
   return line.substr(first);
}

/// How many registers a line may become, at most: every colon counts as one range.
std::uint64_t registersAtMost(std::string_view line) {
   std::uint64_t count = 1;
   for (std::size_t colon = line.find(':'); colon != std::string_view::npos;
        colon = line.find(':', colon + 1)) {
      const std::size_t open = line.rfind('[', colon);
      if (open == std::string_view::npos) {
         continue;
      }
      const long long lower = std::atoll(std::string(line.substr(open + 1, 40)).c_str());
      const long long upper = std::atoll(std::string(line.substr(colon + 1, 40)).c_str());
      if (upper >= lower) {
         count *= std::min<std::uint64_t>(
            static_cast<std::uint64_t>(upper) - static_cast<std::uint64_t>(lower) + 1, 1U << 20);
         count = std::min<std::uint64_t>(count, 1U << 30);
      }
   }
   return count;
}

/// Whether the list is one to try. Bounds in the wrong order stop the process, and rightly so; a
/// list that has any is left out, by the same rule that the tools use, and so is one of very many
/// registers.
bool worthTrying(std::string_view text) {
   std::uint64_t registers = 0;
   while (!text.empty()) {
      const std::size_t end = std::min(text.find('\n'), text.size());
      std::string_view line = text.substr(0, end);
      if (line.ends_with('\r')) {
         line.remove_suffix(1);
      }
      if (TarnRegFile::hasReversedArrayBounds(searched(line))) {
         return false;
      }
      registers += registersAtMost(line);
      text.remove_prefix(std::min(end + 1, text.size()));
   }
   return registers <= maxRegisters;
}

class ZeroTransport : public TarnRegFile::BaseTransportMethodImpl {
public:
   using BaseTransportMethodImpl::BaseTransportMethodImpl;
   std::uint32_t regRead(const char*) override {
      ++reads;
      return 0;
   }
   void regWrite(const char*, std::uint32_t) override {}
   std::size_t reads = 0;
};

void dump(const Ptr<HardwareRegisterFile>& model) {
   static std::FILE* const nowhere = std::fopen("/dev/null", "w");
   ZeroTransport transport("", model->addrBlockSize(), model);
   std::FILE* const previous = std::exchange(stderr, nowhere);
   transport.dumpAll();
   stderr = previous;
   FUZZ_CHECK(transport.reads <= model->size());
}

void checkModel(const Ptr<TarnRegFile::RegFileHelper>& helper) {
   const auto model = helper->regFilePtr();
   const auto list = helper->regList();
   FUZZ_CHECK(list->size() <= model->size());
   model->forEachRegister([&](const String& name, const HardwareRegister& record) {
      FUZZ_CHECK(record.name == name);
      FUZZ_CHECK(record.width <= 32);
      FUZZ_CHECK(record.accessWidth == 32);
      FUZZ_CHECK(record.arraySize >= 1);
      FUZZ_CHECK(helper->hasRegName(name));
      FUZZ_CHECK(helper->findRegisterByName(name) == record);
      FUZZ_CHECK(model->findName(record.address) != nullptr);
      FUZZ_CHECK(list->regGet(record.address).has_value());
   });
   for (const std::uint32_t address : model->addresses()) {
      FUZZ_CHECK(model->findRegister(*model->findName(address)) != nullptr);
   }
   dump(model);
}

void checkText(std::string_view what, std::initializer_list<std::string_view> beginnings) {
   FUZZ_CHECK(std::any_of(beginnings.begin(), beginnings.end(),
                          [&](std::string_view text) { return what.starts_with(text); }));
}

/// Whether the list loads.
bool loads(const std::string& path, std::uint8_t addrBlockSize) {
   const auto helper = TarnRegFile::regFileHelperFactory("fuzz");
   try {
      helper->init(path, addrBlockSize, nullptr);
   } catch (const std::system_error& error) {
      FUZZ_CHECK(error.code() == std::errc::invalid_argument);
      checkText(error.what(),
                {"Wrong CSV header: ", "Invalid address token: ", "Invalid width token: ",
                 "Unsupported register width: ", "Register array expands to more than "});
      FUZZ_CHECK(helper->regFilePtr() == nullptr);
      return false;
   } catch (const std::invalid_argument& error) {
      FUZZ_CHECK(error.what() == std::string_view("stoi"));
      return false;
   } catch (const std::out_of_range& error) {
      FUZZ_CHECK(error.what() == std::string_view("stoi"));
      return false;
   }
   checkModel(helper);
   return true;
}

bool checkerAccepts(const std::string& path) {
   const auto problems = TarnRegFile::RegisterFileChecker().check(path);
   return std::none_of(problems.begin(), problems.end(), [](const auto& problem) {
      return problem.severity == TarnRegFile::ProblemSeverity::error;
   });
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
   // The texts of tolerated problems are made, too, and go nowhere.
   Platform::Trace::levelsAre("*=9");
   Platform::Trace::sinkIs(nullptr);
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
   const std::string_view text(reinterpret_cast<const char*>(data), size);
   if (!worthTrying(text)) {
      return 0;
   }
   const TestSupport::MemoryFile file(text);
   // The block size is not in the file; any one will do, as long as an input always has the same.
   const bool loaded = loads(file.path(), static_cast<std::uint8_t>(size));
   FUZZ_CHECK(checkerAccepts(file.path()) == loaded);
   return 0;
}
