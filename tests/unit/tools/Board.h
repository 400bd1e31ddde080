#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/trace/Trace.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportMethod.h"
#include "tests/support/TempDir.h"
#include "tools/tarnreg/Console.h"
#include "tools/tarnreg/Device.h"
#include "tools/tarnreg/FailureSink.h"
#include "tools/tarnreg/Report.h"

namespace TestSupport {

/// A device with faults: holds values by name, journals every access of the bus, and runs a fault
/// in place of the access, if there is one for that register.
class FaultyTransport : public TarnRegFile::BaseTransportMethodImpl {
public:
   struct State {
      std::vector<std::string> journal;
      std::map<std::string, std::uint32_t> values;
      std::map<std::string, std::function<void()>> readFaults;
      std::map<std::string, std::function<void()>> writeFaults;
   };

   FaultyTransport(const TarnRegFile::Ptr<TarnRegFile::HardwareRegisterFile>& model,
                   std::shared_ptr<State> state)
      : BaseTransportMethodImpl("", 1, model), _state(std::move(state)) {}

   std::uint32_t regRead(const char* name) override {
      _access("read", name, _state->readFaults);
      return _state->values[name];
   }

   void regWrite(const char* name, std::uint32_t value) override {
      _access("write", name, _state->writeFaults);
      _state->values[name] = value;
   }

private:
   void _access(const char* what, const std::string& name,
                const std::map<std::string, std::function<void()>>& faults) {
      _state->journal.push_back(std::string(what) + " " + name);
      if (const auto fault = faults.find(name); fault != faults.end()) {
         fault->second();
      }
   }

   std::shared_ptr<State> _state;
};

/// A device on a FaultyTransport, opened as the command opens one, and the streams around it.
class Board {
public:
   /// `lines` follow the header of the register list.
   explicit Board(const std::string& lines)
      : _sink(std::make_shared<TarnReg::FailureSink>(nullptr)),
        _previousSink(Platform::Trace::sinkIs(_sink)) {
      const std::string list = _dir.write("list.csv", "number,name,type,writeable,width\n" + lines);
      const auto model = TarnRegFile::regFileHelperFactory("list")->parseCsv(list, 1);
      auto method = TarnRegFile::transportMethodFactory("board");
      // For the descriptor; the transport is replaced.
      method->fullInit(TarnRegFile::mockTransportDescriptorFactory(),
                       TarnRegFile::TransportMethodRegFile(model));
      method->handleDeletion();
      method->errorNotifierDel();
      method->implPtrIs(new FaultyTransport(model, state));
      device = std::make_unique<TarnReg::Device>(method, _sink);
   }
   ~Board() {
      device.reset();
      Platform::Trace::sinkIs(_previousSink);
   }
   Board(const Board&) = delete;
   Board& operator=(const Board&) = delete;

   /// Runs a verb; out and err hold afterwards what it said, document the JSON that it printed.
   TarnReg::ExitCode run(const std::function<void(TarnReg::Report&, TarnReg::Console&)>& verb) {
      std::istringstream in(answer);
      std::ostringstream data;
      std::ostringstream talk;
      TarnReg::Console console(in, data, talk, false);
      TarnReg::Report report(console, "verb", "registers", json, base);
      verb(report, console);
      const TarnReg::ExitCode code = report.finish();
      out = data.str();
      err = talk.str();
      document = json ? nlohmann::json::parse(out) : nlohmann::json();
      return code;
   }

   std::vector<std::string>& journal() { return state->journal; }

   const std::shared_ptr<FaultyTransport::State> state = std::make_shared<FaultyTransport::State>();
   std::unique_ptr<TarnReg::Device> device;
   std::string answer;
   bool json = false;
   TarnReg::NumberBase base = TarnReg::NumberBase::hex;

   std::string out;
   std::string err;
   nlohmann::json document;

private:
   TempDir _dir;
   std::shared_ptr<TarnReg::FailureSink> _sink;
   std::shared_ptr<Platform::Trace::Sink> _previousSink;
};

} // namespace TestSupport
