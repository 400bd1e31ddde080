#include <langinfo.h>

#include <clocale>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "tools/tarnreg/Command.h"
#include "tools/tarnreg/DevicePlace.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/ListOnlyDevice.h"
#include "tools/tarnreg/SavedDump.h"
#include "tools/tarnreg/ScriptVerb.h"
#include "tools/tarnreg/Terminal.h"
#include "tools/tarnreg/TopVerb.h"
#include "tools/tarnreg/ValuesFile.h"

namespace TarnReg {

using TarnRegFile::ProblemSeverity;

namespace {

constexpr const char* patternHelp =
   "Names, with * and ? for any characters and [0:3] for a range of an array";

} // namespace

void Command::_verbs() {
   _verb("devices", "devices",
         "List the devices of the board file\n"
         "\n"
         "Examples:\n"
         "  tarnreg -b board.toml devices\n"
         "  TARN_BOARD=board.toml tarnreg devices --json",
         [this](Report& report) { listDevices(boardFile(_session.options), report); });
   _listVerbs();
   _accessVerbs();
   _lookVerbs();
   _topVerb();
   _scriptVerb();
   _checkVerb();
   _exportVerb();
   _tableVerbs();
   _shadowVerbs();
}

void Command::_listVerbs() {
   CLI::App* list =
      _verb("list", "registers",
            "List registers: name, address, width, access, type\n"
            "\n"
            "Examples:\n"
            "  tarnreg -f board.csv list\n"
            "  tarnreg -b board.toml -d fpga list 'FAN[0:3]_*' 'LED*'",
            [this](Report& report) { listRegisters(_device(), _arguments.patterns, report); });
   _words(*list, "PATTERN", _arguments.patterns, patternHelp);
}

void Command::_accessVerbs() {
   CLI::App* read =
      _verb("read", "registers",
            "Read registers\n"
            "\n"
            "Examples:\n"
            "  tarnreg -b board.toml -d fpga read FPGA_ID 'FAN[0:3]_PWM'\n"
            "  tarnreg -f board.csv -t i2c:/dev/i2c-3@0x50 read 'FAN*' --base dec\n"
            "  id=$(tarnreg -b board.toml -d fpga read FPGA_ID | awk '{print $2}')",
            [this](Report& report) { readRegisters(_device(), _arguments.patterns, report); });
   _words(*read, "PATTERN", _arguments.patterns, patternHelp)->required();
   _accessTimeout(*read);

   CLI::App* write =
      _verb("write", "registers",
            "Write registers\n"
            "\n"
            "Examples:\n"
            "  tarnreg -b board.toml -d fpga write SCRATCH=0x1234 --verify\n"
            "  tarnreg -b board.toml -d fpga write 'FAN[0:3]_PWM=128' LED_SYSTEM=0b10\n"
            "  tarnreg -b board.toml -d fpga write 'LED*=0' --dry-run",
            [this](Report& report) {
               if (_arguments.write.confirm && _session.isInputScript) {
                  throw Failure(ExitCode::usage, "--confirm cannot ask: standard "
                                                 "input is the script");
               }
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
      _verb("dump", "registers",
            "Read every register but the configuration ones\n"
            "\n"
            "Examples:\n"
            "  tarnreg -b board.toml -d fpga dump > before\n"
            "  tarnreg -b board.toml -d fpga dump 'PORT*' --json",
            [this](Report& report) {
               dumpRegisters(_device(), _arguments.patterns, _arguments.dumpAll, report);
            });
   _words(*dump, "PATTERN", _arguments.patterns, patternHelp);
   dump->add_flag("--all", _arguments.dumpAll, "Configuration registers (type cfg) too");
   _accessTimeout(*dump);

   CLI::App* call =
      _verb("call", "results",
            "Call an operation of the device's TransportMethod\n"
            "\n"
            "Examples:\n"
            "  tarnreg describe TransportMethod\n"
            "  tarnreg -f board.csv call getRegArraySize 'MAILBOX[0]'",
            [this](Report& report) {
               callOperation(_device(), _arguments.operation, _arguments.operands, report);
            });
   call->add_option("OPERATION", _arguments.operation, "See: describe TransportMethod")
      ->required()
      ->transform(unguarded());
   _words(*call, "ARGUMENT", _arguments.operands, "The operation's arguments, in order");
   _accessTimeout(*call);
}

void Command::_jsonLines(CLI::App& verb) {
   verb.add_flag("--json-lines", _arguments.jsonLines,
                 "Print each change at once as a line of JSON, schema tarnreg-watch/1");
}

void Command::_lookVerbs() {
   CLI::App* watch =
      _verb("watch", "registers",
            "Read registers again and again and print those that change\n"
            "\n"
            "Examples:\n"
            "  tarnreg -b board.toml -d fpga watch 'FAN*_TACH' --interval 0.5\n"
            "  tarnreg -b board.toml -d fpga watch IRQ_PENDING* --count 100\n"
            "  tarnreg -b board.toml -d fpga watch --json-lines | jq -c '[.name, .value]'",
            [this](Report& report) {
               watchRegisters(_device(), _arguments.patterns,
                              {seconds(_arguments.watchInterval), _arguments.watchCount},
                              Pace::real(), report);
            });
   _words(*watch, "PATTERN", _arguments.patterns, patternHelp);
   _seconds(*watch, "--interval", _arguments.watchInterval, "Seconds between two rounds");
   watch->add_option("--count", _arguments.watchCount, "Rounds; without it until interrupted")
      ->option_text("N")
      ->transform(countCheck());
   _jsonLines(*watch);
   _accessTimeout(*watch);

   CLI::App* poll =
      _verb("poll", "registers",
            "Read registers until they hold what is waited for\n"
            "\n"
            "Examples:\n"
            "  tarnreg -b board.toml -d fpga poll --until 'FLASH_STATUS&0x1=0' --timeout 30\n"
            "  tarnreg -b board.toml -d fpga poll --until RESET_CAUSE=0 'FAN[0:3]_STATUS=1'",
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

   CLI::App* diff = _verb("diff", "registers",
                          "Compare registers with those of another device or a saved dump\n"
                          "\n"
                          "Examples:\n"
                          "  tarnreg -b board.toml -d fpga diff --with-dump before\n"
                          "  tarnreg -b board.toml -d left diff --with-device right 'PORT*'",
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
}

void Command::_topVerb() {
   CLI::App* top = _verb(
      "top", "registers",
      "Show registers on the whole screen, again and again\n"
      "\n"
      "Examples:\n"
      "  tarnreg -b board.toml -d fpga top 'FAN*' 'TEMPERATURE*'\n"
      "  tarnreg -b board.toml -d fpga top --interval 0.2 'COUNTER*'\n"
      "\n"
      "What changed in the last round is highlighted, and what came before is plotted, from\n"
      "the lowest to the highest value on show. q quits, p pauses, arrows scroll. A register\n"
      "that cannot be read says why in its line. Without a terminal it is as watch.",
      [this](Report& report) { _top(report); });
   _words(*top, "PATTERN", _arguments.patterns, patternHelp);
   _seconds(*top, "--interval", _arguments.watchInterval, "Seconds between two rounds");
   top->add_flag("--ascii", _arguments.ascii, "Plots of ASCII, also where the locale has more");
   _accessTimeout(*top);
}

void Command::_top(Report& report) {
   Device& device = _device();
   const auto interval = seconds(_arguments.watchInterval);
   if (_session.options.json || !Terminal::isThere()) {
      watchRegisters(device, _arguments.patterns, {interval, 0}, Pace::real(), report);
      return;
   }
   std::setlocale(LC_CTYPE, ""); // the widths of characters are the terminal's
   TopOptions options;
   options.interval = interval;
   options.style.base = _session.options.base;
   options.style.color = Console::colorWanted(_session.options.color);
   options.style.unicode = !_arguments.ascii && std::string_view(::nl_langinfo(CODESET)) == "UTF-8";
   const DevicePlace place = devicePlace(_session.options);
   options.title = !_session.options.device.empty()
                      ? _session.options.device
                      : std::filesystem::path(place.list).stem().string();
   topRegisters(device, _arguments.patterns, options, report);
}

void Command::_scriptVerb() {
   CLI::App* script =
      _verb("script", "commands",
            "Carry out commands on one device, one a line\n"
            "\n"
            "Examples:\n"
            "  tarnreg -b board.toml -d fpga script bring-up.txt\n"
            "  printf 'write SCRATCH=7\\nread SCRATCH\\n' | tarnreg -f board.csv script\n"
            "  tarnreg -b board.toml -d fpga script <<'END'\n"
            "  write RESET_CONTROL=1           # a comment\n"
            "  wait 0.1\n"
            "  write RESET_CONTROL=0 --verify\n"
            "  poll --until 'FLASH_STATUS&0x1=0' --timeout 5\n"
            "  END\n"
            "\n"
            "A line is list, read, write, dump, call, watch, poll or diff with the arguments that\n"
            "these have at a shell; or wait SECONDS, or echo TEXT. Blanks separate, quotes and\n"
            "backslashes keep together, # begins a comment, and nothing is expanded. The device\n"
            "is opened once. The first line that fails ends it, and gives the exit code.",
            [this](Report& report) { _script(report); });
   script->add_option("FILE", _arguments.script, "The commands; - or nothing for standard input")
      ->transform(unguarded());
   script->add_flag("--keep-going,-k", _arguments.keepGoing,
                    "Go on behind a line that fails; the first one still gives the exit code");
}

void Command::_script(Report& report) {
   _device();
   const bool isInput = _arguments.script == "-";
   std::ifstream file;
   if (!isInput) {
      std::error_code error;
      if (!std::filesystem::is_directory(_arguments.script, error)) {
         file.open(_arguments.script);
      }
      if (!file.is_open()) {
         throw Failure(ExitCode::general, fmt::format("cannot read {}", _arguments.script));
      }
   }
   _session.isInputScript = isInput;
   runScript(
      isInput ? std::cin : file, isInput ? "stdin" : _arguments.script, _arguments.keepGoing,
      [this](const std::vector<std::string>& words) {
         return Command(_session, Kind::scriptLine).runLine(words);
      },
      _talk(), report);
}

void Command::_checkVerb() {
   CLI::App* check =
      _verb("check", "problems",
            "Report every problem of a register list\n"
            "\n"
            "Examples:\n"
            "  tarnreg check board.csv\n"
            "  tarnreg check board.csv --fail-on warning",
            [this](Report& report) { checkFile(_arguments.checkFile, _arguments.failOn, report); });
   check->add_option("FILE", _arguments.checkFile, "The register list")
      ->required()
      ->transform(unguarded());
   check->add_option("--fail-on", _arguments.failOn, "Fail from this severity on (default error)")
      ->option_text("info|warning|error")
      ->transform(oneOf<ProblemSeverity>({{"info", ProblemSeverity::info},
                                          {"warning", ProblemSeverity::warning},
                                          {"error", ProblemSeverity::error}}));

   CLI::App* describe = _verb("describe", "types",
                              "Describe a type of the library: attributes, operations\n"
                              "\n"
                              "Examples:\n"
                              "  tarnreg describe\n"
                              "  tarnreg describe TransportMethod",
                              [this](Report& report) { describeType(_arguments.type, report); });
   describe->add_option("TYPE", _arguments.type, "The type; without it all types are listed")
      ->transform(unguarded());
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
