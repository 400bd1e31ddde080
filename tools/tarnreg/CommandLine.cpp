#include "tools/tarnreg/CommandLine.h"

#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "platform/trace/StderrSink.h"
#include "platform/trace/Trace.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Options.h"
#include "tools/tarnreg/Verbs.h"

namespace TarnReg {

namespace {

using TarnRegFile::ProblemSeverity;

/// The verbs' arguments, as they are parsed.
struct Arguments {
   std::vector<std::string> patterns;
   std::vector<std::string> assignments;
   WriteOptions write;
   bool dumpAll = false;
   std::string checkFile;
   ProblemSeverity failOn = ProblemSeverity::error;
   std::string type;
   std::string operation;
   std::vector<std::string> operands;
};

class Command {
public:
   Command();
   ExitCode run(int argc, char** argv);

private:
   void _globalOptions();
   void _verbs();
   CLI::App* _verb(const char* name, const char* help, std::function<void(Report&)> action);
   std::shared_ptr<FailureSink> _installTrace() const;
   Device& _device();
   Console& _talk();
   ExitCode _runVerb();

   CLI::App _app;
   Options _options;
   Arguments _arguments;
   std::string _verbName;
   std::function<void(Report&)> _action;
   std::unique_ptr<Console> _console;
   std::unique_ptr<Device> _opened;
};

Command::Command()
   : _app("Reads and writes the registers of a programmable device by name.\n"
          "\n"
          "Examples:\n"
          "  tarnreg --file board.csv list 'FAN*'\n"
          "  tarnreg --file board.csv read 'FAN[0:3]_PWM' FPGA_ID\n"
          "  tarnreg --file board.csv --transport mock:values.csv write SCRATCH=0x1234 --verify\n"
          "  tarnreg check board.csv\n",
          "tarnreg") {
   _app.require_subcommand(1);
   _app.fallthrough();
   _app.set_version_flag("--version", std::string("tarnreg ") + TARNREG_VERSION);
   _app.failure_message([](const CLI::App*, const CLI::Error& error) {
      return fmt::format("tarnreg: error: {}\nRun tarnreg --help for the command line.\n",
                         error.what());
   });
   _globalOptions();
   _verbs();
}

void Command::_globalOptions() {
   _app.add_option("--file,-f", _options.file, "Register list of the device (CSV)")
      ->type_name("LIST");
   _app
      .add_option("--transport,-t", _options.transport,
                  "How the device is reached: mock:[VALUES-FILE] (default mock:)")
      ->option_text("URL");
   _app.add_flag("--json", _options.json, "Print one JSON document, schema tarnreg/1");
   _app.add_option("--base", _options.base, "How values are shown")
      ->option_text("hex|dec|bin")
      ->transform(CLI::CheckedTransformer(
         std::map<std::string, NumberBase>{
            {"hex", NumberBase::hex}, {"dec", NumberBase::dec}, {"bin", NumberBase::bin}},
         CLI::ignore_case));
   _app
      .add_option("--trace", _options.trace, "Trace the library up to this level on standard error")
      ->option_text("0..9")
      ->check(CLI::Range(0, 9));
   _app.add_option("--color", _options.color, "When messages are coloured")
      ->option_text("auto|always|never")
      ->transform(
         CLI::CheckedTransformer(std::map<std::string, ColorMode>{{"auto", ColorMode::automatic},
                                                                  {"always", ColorMode::always},
                                                                  {"never", ColorMode::never}},
                                 CLI::ignore_case));
}

CLI::App* Command::_verb(const char* name, const char* help, std::function<void(Report&)> action) {
   CLI::App* verb = _app.add_subcommand(name, help);
   verb->callback([this, name, action = std::move(action)] {
      _verbName = name;
      _action = action;
   });
   return verb;
}

void Command::_verbs() {
   const char* patternHelp =
      "Names, with * and ? for any characters and [0:3] for a range of an array";
   CLI::App* list =
      _verb("list", "List registers: name, address, width, access, type",
            [this](Report& report) { listRegisters(_device(), _arguments.patterns, report); });
   list->add_option("PATTERN", _arguments.patterns, patternHelp);

   CLI::App* read = _verb("read", "Read registers", [this](Report& report) {
      readRegisters(_device(), _arguments.patterns, report);
   });
   read->add_option("PATTERN", _arguments.patterns, patternHelp)->required();

   CLI::App* write = _verb("write", "Write registers", [this](Report& report) {
      writeRegisters(_device(), _arguments.assignments, _arguments.write, _talk(), report);
   });
   write
      ->add_option("NAME=VALUE", _arguments.assignments,
                   "What to write; values in decimal, 0x hexadecimal or 0b binary")
      ->required();
   write->add_flag("--dry-run,-n", _arguments.write.dryRun, "Only say what would be written");
   write->add_flag("--verify", _arguments.write.verify, "Read back and compare");
   write->add_flag("--confirm,-i", _arguments.write.confirm, "Ask before writing");
   write->add_flag("--force", _arguments.write.force, "Write read-only registers too");

   CLI::App* dump =
      _verb("dump", "Read every register but the configuration ones", [this](Report& report) {
         dumpRegisters(_device(), _arguments.patterns, _arguments.dumpAll, report);
      });
   dump->add_option("PATTERN", _arguments.patterns, patternHelp);
   dump->add_flag("--all", _arguments.dumpAll, "Configuration registers (type cfg) too");

   CLI::App* check =
      _verb("check", "Report every problem of a register list",
            [this](Report& report) { checkFile(_arguments.checkFile, _arguments.failOn, report); });
   check->add_option("FILE", _arguments.checkFile, "The register list")->required();
   check->add_option("--fail-on", _arguments.failOn, "Fail from this severity on (default error)")
      ->option_text("info|warning|error")
      ->transform(CLI::CheckedTransformer(
         std::map<std::string, ProblemSeverity>{{"info", ProblemSeverity::info},
                                                {"warning", ProblemSeverity::warning},
                                                {"error", ProblemSeverity::error}},
         CLI::ignore_case));

   CLI::App* describe = _verb("describe", "Describe a type of the library: attributes, operations",
                              [this](Report& report) { describeType(_arguments.type, report); });
   describe->add_option("TYPE", _arguments.type, "The type; without it all types are listed");

   CLI::App* call =
      _verb("call", "Call an operation of the device's TransportMethod", [this](Report& report) {
         callOperation(_device(), _arguments.operation, _arguments.operands, report);
      });
   call->add_option("OPERATION", _arguments.operation, "See: describe TransportMethod")->required();
   call->add_option("ARGUMENT", _arguments.operands, "The operation's arguments, in order");
}

std::shared_ptr<FailureSink> Command::_installTrace() const {
   // The failures themselves must reach the FailureSink; a person sees trace lines only on demand.
   const bool fromEnvironment = std::getenv("TARN_TRACE") != nullptr;
   const bool wanted = _options.trace >= 0 || fromEnvironment;
   auto sink = std::make_shared<FailureSink>(
      wanted ? std::make_shared<Platform::Trace::StderrSink>() : nullptr);
   if (_options.trace >= 0) {
      Platform::Trace::levelsAre(fmt::format("*={}", _options.trace));
   }
   Platform::Trace::sinkIs(sink);
   return sink;
}

Device& Command::_device() {
   if (!_opened) {
      if (_options.file.empty()) {
         throw Failure(ExitCode::usage, "--file is needed: the register list of the device");
      }
      const TransportUrl url(_options.transport);
      _opened = std::make_unique<Device>(_options.file, url, _installTrace());
   }
   return *_opened;
}

Console& Command::_talk() {
   return *_console;
}

ExitCode Command::run(int argc, char** argv) {
   try {
      _app.parse(argc, argv);
   } catch (const CLI::ParseError& error) {
      return _app.exit(error) == 0 ? ExitCode::ok : ExitCode::usage;
   }
   _console = std::make_unique<Console>(std::cin, std::cout, std::cerr,
                                        Console::colorWanted(_options.color));
   return _runVerb();
}

ExitCode Command::_runVerb() {
   Report report(*_console, _verbName, _options.json, _options.base);
   try {
      _action(report);
   } catch (const Failure& failure) {
      report.failure(failure.code(), failure.what());
   } catch (const std::exception& error) {
      report.failure(ExitCode::general, _options.file.empty()
                                           ? error.what()
                                           : fmt::format("{}: {}", _options.file, error.what()));
   }
   return report.finish();
}

} // namespace

ExitCode runCommandLine(int argc, char** argv) {
   return Command().run(argc, argv);
}

} // namespace TarnReg
