#include <filesystem>

#include "tools/tarnreg/Command.h"
#include "tools/tarnreg/DevicePlace.h"
#include "tools/tarnreg/ListOnlyDevice.h"
#include "tools/tarnreg/SavedDump.h"
#include "tools/tarnreg/ValuesFile.h"

namespace TarnReg {

using TarnRegFile::ProblemSeverity;

void Command::_verbs() {
   const char* patternHelp =
      "Names, with * and ? for any characters and [0:3] for a range of an array";
   _verb("devices", "devices", "List the devices of the board file",
         [this](Report& report) { listDevices(boardFile(_session.options), report); });

   CLI::App* list =
      _verb("list", "registers", "List registers: name, address, width, access, type",
            [this](Report& report) { listRegisters(_device(), _arguments.patterns, report); });
   _words(*list, "PATTERN", _arguments.patterns, patternHelp);

   CLI::App* read = _verb("read", "registers", "Read registers", [this](Report& report) {
      readRegisters(_device(), _arguments.patterns, report);
   });
   _words(*read, "PATTERN", _arguments.patterns, patternHelp)->required();
   _accessTimeout(*read);

   CLI::App* write = _verb("write", "registers", "Write registers", [this](Report& report) {
      writeRegisters(_device(), _arguments.assignments, _arguments.write, _talk(), report);
   });
   _words(*write, "NAME=VALUE", _arguments.assignments,
          "What to write; values in decimal, 0x hexadecimal or 0b binary")
      ->required();
   write->add_flag("--dry-run,-n", _arguments.write.dryRun, "Only say what would be written");
   write->add_flag("--verify", _arguments.write.verify, "Read back and compare");
   write->add_flag("--confirm,-i", _arguments.write.confirm, "Ask before writing");
   write->add_flag("--force", _arguments.write.force, "Write read-only registers too");
   _accessTimeout(*write);

   CLI::App* dump =
      _verb("dump", "registers", "Read every register but the configuration ones",
            [this](Report& report) {
               dumpRegisters(_device(), _arguments.patterns, _arguments.dumpAll, report);
            });
   _words(*dump, "PATTERN", _arguments.patterns, patternHelp);
   dump->add_flag("--all", _arguments.dumpAll, "Configuration registers (type cfg) too");
   _accessTimeout(*dump);

   CLI::App* watch =
      _verb("watch", "registers", "Read registers again and again and print those that change",
            [this](Report& report) {
               watchRegisters(_device(), _arguments.patterns,
                              {seconds(_arguments.watchInterval), _arguments.watchCount},
                              Pace::real(), report);
            });
   _words(*watch, "PATTERN", _arguments.patterns, patternHelp);
   _seconds(*watch, "--interval", _arguments.watchInterval, "Seconds between two rounds");
   watch->add_option("--count", _arguments.watchCount, "Rounds; without it until interrupted")
      ->option_text("N")
      ->check(CLI::PositiveNumber);
   _accessTimeout(*watch);

   CLI::App* poll =
      _verb("poll", "registers", "Read registers until they hold what is waited for",
            [this](Report& report) {
               pollRegisters(_device(), _arguments.conditions,
                             {seconds(_arguments.pollInterval), seconds(_arguments.timeout)},
                             Pace::real(), report);
            });
   _words(*poll, "--until", _arguments.conditions,
          "NAME=VALUE or NAME&MASK=VALUE; of several, all must hold at a time")
      ->required()
      ->option_text("CONDITION...");
   _seconds(*poll, "--interval", _arguments.pollInterval, "Seconds between two reads");
   _seconds(*poll, "--timeout", _arguments.timeout, "Seconds until it is given up, exit code 6");

   CLI::App* diff =
      _verb("diff", "registers", "Compare registers with those of another device or a saved dump",
            [this](Report& report) { _diff(report); });
   _words(*diff, "PATTERN", _arguments.patterns, patternHelp);
   CLI::Option_group* other = diff->add_option_group("With", "What to compare with");
   other->add_option("--with-device", _arguments.otherDevice, "A device of the board file")
      ->option_text("NAME");
   other
      ->add_option("--with-transport", _arguments.otherTransport,
                   "A device of the same register list, reached so")
      ->option_text("URL")
      ->transform(unguarded());
   other
      ->add_option("--with-dump", _arguments.dumpFile,
                   "What dump printed, be it lines or JSON; without a pattern all that it has")
      ->option_text("FILE")
      ->transform(unguarded());
   other->require_option(1);
   diff->add_flag("--all", _arguments.diffAll, "Configuration registers (type cfg) too");
   _accessTimeout(*diff);

   CLI::App* check =
      _verb("check", "problems", "Report every problem of a register list",
            [this](Report& report) { checkFile(_arguments.checkFile, _arguments.failOn, report); });
   check->add_option("FILE", _arguments.checkFile, "The register list")
      ->required()
      ->transform(unguarded());
   check->add_option("--fail-on", _arguments.failOn, "Fail from this severity on (default error)")
      ->option_text("info|warning|error")
      ->transform(oneOf<ProblemSeverity>({{"info", ProblemSeverity::info},
                                          {"warning", ProblemSeverity::warning},
                                          {"error", ProblemSeverity::error}}));

   CLI::App* describe =
      _verb("describe", "types", "Describe a type of the library: attributes, operations",
            [this](Report& report) { describeType(_arguments.type, report); });
   describe->add_option("TYPE", _arguments.type, "The type; without it all types are listed")
      ->transform(unguarded());

   CLI::App* call =
      _verb("call", "results", "Call an operation of the device's TransportMethod",
            [this](Report& report) {
               callOperation(_device(), _arguments.operation, _arguments.operands, report);
            });
   call->add_option("OPERATION", _arguments.operation, "See: describe TransportMethod")
      ->required()
      ->transform(unguarded());
   _words(*call, "ARGUMENT", _arguments.operands, "The operation's arguments, in order");
   _accessTimeout(*call);

   _exportVerb();
   _tableVerbs();
   _shadowVerbs();
}

void Command::_exportVerb() {
   CLI::App* exported =
      _verb("export", "files",
            "Print a register list as a C header, Markdown, HTML or JSON\n"
            "\n"
            "Examples:\n"
            "  tarnreg -f board.csv export --format header --output board_registers.h\n"
            "  tarnreg -b board.toml -d fpga export --format html --output fpga.html\n"
            "  tarnreg -f board.csv export --format json 'FAN*' | jq '.registers[].name'\n"
            "\n"
            "The device is not opened. Addresses are those of its transport: register numbers\n"
            "times 4 with mock: and pci:, else the numbers themselves.",
            [this](Report& report) { _export(report); });
   _words(*exported, "PATTERN", _arguments.patterns,
          "Names, with * and ? for any characters and [0:3] for a range of an array; all\n"
          "registers without any");
   exported->add_option("--format", _arguments.exported.format, "What to print")
      ->required()
      ->option_text("header|markdown|html|json")
      ->transform(oneOf<ExportFormat>({{"header", ExportFormat::header},
                                       {"markdown", ExportFormat::markdown},
                                       {"html", ExportFormat::html},
                                       {"json", ExportFormat::json}}));
   exported
      ->add_option("--output,-o", _arguments.exported.output,
                   "Where to, in place of standard output")
      ->option_text("FILE")
      ->transform(unguarded());
   exported
      ->add_option("--title", _arguments.exportTitle,
                   "What it is about, and what names in the header begin with; else the name\n"
                   "of the device or the register list")
      ->option_text("TEXT")
      ->transform(unguarded());
}

void Command::_export(Report& report) {
   const DevicePlace place = devicePlace(_session.options);
   const std::string title = !_arguments.exportTitle.empty() ? _arguments.exportTitle
                             : !_session.options.device.empty()
                                ? _session.options.device
                                : std::filesystem::path(place.list).stem().string();
   const std::unique_ptr<Device> device = listOnlyDevice(place);
   exportRegisters(*device, title, _arguments.patterns, _arguments.exported, _talk(), report);
}

void Command::_diff(Report& report) {
   if (!_arguments.dumpFile.empty()) {
      const SavedDump dump(_arguments.dumpFile);
      diffDump(_device(), dump, _arguments.patterns, report);
      return;
   }
   DevicePlace place = devicePlace(_session.options);
   if (_arguments.otherDevice.empty()) {
      Options options = _session.options;
      options.device.clear();
      options.file = place.list;
      options.transport = _arguments.otherTransport;
      place = devicePlace(options);
   } else {
      Options options = _session.options;
      options.file.clear();
      options.transport.clear();
      options.device = _arguments.otherDevice;
      place = devicePlace(options);
   }
   checkValuesFile(place.url.valuesFile(), false);
   Device other(place.list, place.url, _session.failures, _session.platforms);
   _bound(other);
   diffDevices(_device(&other), other, _arguments.patterns, _arguments.diffAll, report);
}

} // namespace TarnReg
