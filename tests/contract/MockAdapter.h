#pragma once

#include <sstream>

#include "tests/contract/TransportAdapter.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

namespace Contract {

/// The mock. Its device is the values file, of which every access that changes something writes a
/// new version; the journal has its lines. Values are set before the transport is opened.
class MockAdapter : public TransportAdapter {
public:
   MockAdapter()
      : TransportAdapter(
           {.addressUnits = 4, .hasBlock = true, .canFail = false, .everyAccessIsSeen = false}) {}

   Ptr<TransportMethod> open(const TransportMethodRegFile& registers) override {
      auto device = TarnRegFile::transportMethodFactory("device");
      device->fullInit(TarnRegFile::mockTransportDescriptorFactory(), registers);
      _untouched = _lines();
      return device;
   }

   std::vector<std::string> journal() const override {
      const auto lines = _lines();
      return lines == _untouched ? std::vector<std::string>() : lines;
   }

   std::uint32_t value(std::uint32_t number) const override {
      const std::string prefix = std::to_string(4 * number) + ",";
      for (const std::string& line : _lines()) {
         if (line.rfind(prefix, 0) == 0) {
            return static_cast<std::uint32_t>(std::stoul(line.substr(prefix.size())));
         }
      }
      return 0;
   }

   void valueIs(std::uint32_t number, std::uint32_t value) override {
      const std::string present =
         _dir.has("values.csv") ? _dir.read("values.csv") : "Address,Value\n";
      _dir.write("values.csv",
                 present + std::to_string(4 * number) + "," + std::to_string(value) + "\n");
      _untouched = _lines();
   }

private:
   std::vector<std::string> _lines() const {
      std::istringstream in(_dir.read("values.csv"));
      std::vector<std::string> lines;
      for (std::string line; std::getline(in, line);) {
         lines.push_back(line);
      }
      return lines;
   }

   TestSupport::TempDir _dir;
   TestSupport::EnvironmentVariable _variable{"REG_VALUES_FILE", _dir.path("values.csv")};
   std::vector<std::string> _untouched;
};

} // namespace Contract
