#include "tools/tarnreg/CommandLine.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "platform/trace/StderrSink.h"
#include "platform/trace/Trace.h"
#include "tools/tarnreg/DevicePlace.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Options.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/SavedDump.h"
#include "tools/tarnreg/ShadowCoreVerbs.h"
#include "tools/tarnreg/ShadowOrderVerbs.h"
#include "tools/tarnreg/ShadowVerbs.h"
#include "tools/tarnreg/TableVerbs.h"
#include "tools/tarnreg/ValuesFile.h"
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
   bool diffAll = false;
   double watchInterval = 1;
   std::uint64_t watchCount = 0;
   std::vector<std::string> conditions;
   double pollInterval = 0.1;
   double timeout = 10;
   double accessTimeout = 0;
   std::string otherDevice;
   std::string otherTransport;
   std::string dumpFile;
   std::string checkFile;
   ProblemSeverity failOn = ProblemSeverity::error;
   std::string type;
   std::string operation;
   std::vector<std::string> operands;
   std::string tableDirectory;
   std::string table;
   std::vector<std::string> tables;
   bool tableForce = false;
   std::uint64_t tableCount = 0;
   double tableTimeout = 0;
   ShadowSetOptions shadowSet;
   ShadowOrderOptions shadowOrder;
   double shadowTimeout = 10;
   bool shadowNoWait = false;
   std::vector<std::string> cores;
   std::string orderId;
};

/// Turns one of these words into its number, as the options' enumerations are parsed.
template <typename Enum>
CLI::Validator oneOf(const std::vector<std::pair<std::string, Enum>>& choices) {
   return CLI::Validator(
      [choices](std::string& word) {
         std::string known;
         for (const auto& [name, value] : choices) {
            if (name == CLI::detail::to_lower(word)) {
               word = std::to_string(static_cast<int>(value));
               return std::string();
            }
            known += (known.empty() ? "" : ", ") + name;
         }
         return fmt::format("'{}' is none of {}", word, known);
      },
      "");
}

// CLI11 takes a word in brackets for a list and strips them: "[A]" would become A, the name of
// another register. So each word that begins with a bracket is parsed with a character at its end,
// which is taken away again.
constexpr char guard = '\x01';

/// The words of the command line behind the program's name, last one first, as CLI11 takes them.
std::vector<std::string> guardedWords(int argc, char** argv) {
   std::vector<std::string> words;
   for (int i = argc - 1; i > 0; --i) {
      words.emplace_back(argv[i]);
      if (words.back().starts_with('[')) {
         words.back() += guard;
      }
   }
   return words;
}

CLI::Validator unguarded() {
   return CLI::Validator(
      [](std::string& word) {
         if (word.starts_with('[') && word.back() == guard) {
            word.pop_back();
         }
         return std::string();
      },
      "");
}

/// What is wrong with the command line.
std::string usageText(const CLI::App& app, const CLI::Error& error) {
   const std::vector<std::string> rest = app.remaining();
   if (error.get_name() == "RequiredError" && app.get_subcommands().empty() && !app.get_parent()) {
      return rest.empty() ? "a verb is needed" : fmt::format("no verb '{}'", rest.front());
   }
   std::string text = error.what();
   std::erase(text, guard);
   return text;
}

std::chrono::steady_clock::duration seconds(double number) {
   return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(number));
}

class Command {
public:
   Command();
   ExitCode run(int argc, char** argv);

private:
   void _globalOptions();
   void _verbs();
   void _tableVerbs();
   void _shadowVerbs();
   void _shadowOrderVerbs(CLI::App& shadow);
   void _shadowCoreVerbs(CLI::App& shadow);
   std::vector<std::string> _cores(bool needed) const;
   ShadowView& _shadowView();
   CLI::App* _verb(const char* name, const char* list, const char* help,
                   std::function<void(Report&)> action);
   CLI::App* _subVerb(CLI::App& parent, const char* name, const char* list, const char* help,
                      std::function<void(Report&)> action);
   Platform::Tables::TableDirectory _tableDirectory() const;
   static CLI::Option* _words(CLI::App& verb, const char* name, std::vector<std::string>& words,
                              const char* help);
   void _diff(Report& report);
   void _accessTimeout(CLI::App& verb);
   void _bound(Device& device) const;
   static void _seconds(CLI::App& verb, const char* name, double& value, const char* help);
   void _installTrace();
   Device& _device(const Device* other = nullptr);
   Console& _talk();
   ExitCode _runVerb();

   CLI::App _app;
   Options _options;
   Arguments _arguments;
   std::string _verbName;
   std::string _listName;
   std::shared_ptr<FailureSink> _failures;
   std::function<void(Report&)> _action;
   std::unique_ptr<Console> _console;
   const std::shared_ptr<Board::Platforms> _platforms = std::make_shared<Board::Platforms>();
   std::unique_ptr<Device> _opened;
   std::unique_ptr<ShadowView> _shadow;
};

Command::Command()
   : _app("Reads and writes the registers of a programmable device by name.\n"
          "\n"
          "Examples:\n"
          "  tarnreg --file board.csv list 'FAN*'\n"
          "  tarnreg --file board.csv read 'FAN[0:3]_PWM' FPGA_ID\n"
          "  tarnreg --file board.csv --transport mock:values.csv write SCRATCH=0x1234 --verify\n"
          "  tarnreg --board board.toml --device fpga read FPGA_ID\n"
          "  tarnreg check board.csv\n",
          "tarnreg") {
   _app.footer(
      "Data goes to standard output, everything said to standard error. With several failures\n"
      "the first decides the exit code:\n"
      "  0 all went well           4 refused: read-only, or answered with no\n"
      "  1 anything else           5 an access of the device failed\n"
      "  2 wrong command line      6 the device did not answer in time\n"
      "  3 unknown name            7 not what was written was read back\n"
      "An interrupt ends it as a signal does: 130 for the shell.\n"
      "\n"
      "A name that begins with a dash stands behind --. Environment: REG_VALUES_FILE (the\n"
      "values file of mock:), NM_SOCKET_DIR and NM_SOCKET_FILE (the socket of smbus:),\n"
      "TARN_BOARD (board file), TARN_TABLE_DIR (shared tables), TARN_TRACE (levels by\n"
      "source), NO_COLOR.");
   _app.require_subcommand(1);
   _app.fallthrough();
   _app.set_version_flag("--version", std::string("tarnreg ") + TARNREG_VERSION);
   _app.failure_message([](const CLI::App* app, const CLI::Error& error) {
      return fmt::format("tarnreg: error: {}\nRun tarnreg --help for the command line.\n",
                         printable(usageText(*app, error)));
   });
   _globalOptions();
   _verbs();
}

void Command::_globalOptions() {
   _app.add_option("--file,-f", _options.file, "Register list of the device (CSV)")
      ->type_name("LIST")
      ->transform(unguarded());
   _app
      .add_option("--transport,-t", _options.transport,
                  "How the device is reached (default mock:):\n"
                  "mock:[VALUES-FILE]\n"
                  "pci:BUS:DEVICE.FUNCTION[/resourceN], pci:PATH\n"
                  "i2c:PATH@ADDRESS[?flavour=1|2]\n"
                  "sorn:PATH@ADDRESS[?timeout=MS]\n"
                  "spi:PATH[?speed=HZ&mode=0..3]\n"
                  "smbus:BUS@ADDRESS[?flavour=1|2&controller=N\n"
                  "  &pci=BUS:DEVICE.FUNCTION&socket=PATH]")
      ->option_text("URL")
      ->transform(unguarded());
   _app.add_option("--device,-d", _options.device, "A device of the board file, in place of both")
      ->type_name("NAME")
      ->transform(unguarded());
   _app
      .add_option("--board,-b", _options.board, "Board file (TOML); else the one TARN_BOARD names")
      ->type_name("FILE")
      ->transform(unguarded());
   _app.add_flag("--json", _options.json, "Print one JSON document, schema tarnreg/1");
   _app.add_option("--base", _options.base, "How values are shown")
      ->option_text("hex|dec|bin")
      ->transform(oneOf<NumberBase>(
         {{"hex", NumberBase::hex}, {"dec", NumberBase::dec}, {"bin", NumberBase::bin}}));
   _app
      .add_option("--trace", _options.trace, "Trace the library up to this level on standard error")
      ->option_text("0..9")
      ->check(CLI::Range(0, 9));
   _app.add_option("--color", _options.color, "When messages are coloured")
      ->option_text("auto|always|never")
      ->transform(oneOf<ColorMode>({{"auto", ColorMode::automatic},
                                    {"always", ColorMode::always},
                                    {"never", ColorMode::never}}));
}

CLI::App* Command::_verb(const char* name, const char* list, const char* help,
                         std::function<void(Report&)> action) {
   return _subVerb(_app, name, list, help, std::move(action));
}

CLI::App* Command::_subVerb(CLI::App& parent, const char* name, const char* list, const char* help,
                            std::function<void(Report&)> action) {
   CLI::App* verb = parent.add_subcommand(name, help);
   const std::string full = &parent == &_app ? name : parent.get_name() + " " + name;
   verb->callback([this, full, list, action = std::move(action)] {
      _verbName = full;
      _listName = list;
      _action = action;
   });
   return verb;
}

CLI::Option* Command::_words(CLI::App& verb, const char* name, std::vector<std::string>& words,
                             const char* help) {
   return verb.add_option(name, words, help)->transform(unguarded());
}

void Command::_seconds(CLI::App& verb, const char* name, double& value, const char* help) {
   // As much as a year: beyond that the clock's arithmetic ends.
   verb.add_option(name, value, help)
      ->option_text("SECONDS")
      ->check(CLI::Range(0.0, 31536000.0))
      ->check(CLI::Validator(
         [](std::string& word) {
            return word.find_first_of("nN") == std::string::npos ? std::string()
                                                                 : std::string("is no number");
         },
         ""));
}

void Command::_verbs() {
   const char* patternHelp =
      "Names, with * and ? for any characters and [0:3] for a range of an array";
   _verb("devices", "devices", "List the devices of the board file",
         [this](Report& report) { listDevices(boardFile(_options), report); });

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

   _tableVerbs();
   _shadowVerbs();
}

void Command::_tableVerbs() {
   CLI::App* table = _app.add_subcommand("table", "Look at the shared tables of this machine");
   table->require_subcommand(1);
   table->fallthrough();
   table
      ->add_option("--dir", _arguments.tableDirectory,
                   "Where they are; else what TARN_TABLE_DIR says, else /dev/shm/tarn")
      ->option_text("DIRECTORY")
      ->transform(unguarded());
   const auto named = [&](CLI::App* verb) {
      verb->add_option("TABLE", _arguments.table, "The table's name")
         ->required()
         ->transform(unguarded());
      return verb;
   };
   _subVerb(*table, "list", "tables", "List the tables: what they hold, who has them mounted",
            [this](Report& report) { listTables(_tableDirectory(), report); });
   named(_subVerb(
      *table, "describe", "facts", "Say all that is known of a table",
      [this](Report& report) { describeTable(_tableDirectory(), _arguments.table, report); }));
   named(
      _subVerb(*table, "dump", "records", "Print every record of a table",
               [this](Report& report) { dumpTable(_tableDirectory(), _arguments.table, report); }));
   CLI::App* watch =
      named(_subVerb(*table, "watch", "changes", "Print the changes of a table as they come",
                     [this](Report& report) {
                        TableWatchOptions options{.count = _arguments.tableCount};
                        if (_arguments.tableTimeout > 0) {
                           options.timeout = seconds(_arguments.tableTimeout);
                        }
                        watchTable(_tableDirectory(), _arguments.table, options, report);
                     }));
   watch->add_option("--count", _arguments.tableCount, "Changes; without it until interrupted")
      ->option_text("N")
      ->check(CLI::PositiveNumber);
   _seconds(*watch, "--timeout", _arguments.tableTimeout,
            "Seconds until it ends; with --count, exit code 6 then");
   CLI::App* audit =
      _subVerb(*table, "audit", "tables", "Look through tables for damage", [this](Report& report) {
         auditTables(_tableDirectory(), _arguments.tables, report);
      });
   _words(*audit, "TABLE", _arguments.tables, "The tables' names; without any, all of them");
   CLI::App* remove = named(_subVerb(
      *table, "remove", "tables", "Remove a table and all that it holds", [this](Report& report) {
         removeTable(_tableDirectory(), _arguments.table, _arguments.tableForce, report);
      }));
   remove->add_flag("--force", _arguments.tableForce, "Also one that is mounted");
}

void Command::_shadowVerbs() {
   CLI::App* shadow = _app.add_subcommand(
      "shadow", "Registers of a device that another process owns, in shared memory");
   shadow->require_subcommand(1);
   shadow->fallthrough();
   shadow
      ->add_option("--dir", _arguments.tableDirectory,
                   "Where the tables are; else what TARN_TABLE_DIR says, else /dev/shm/tarn")
      ->option_text("DIRECTORY")
      ->transform(unguarded());
   const char* patternHelp =
      "Names, with * and ? for any characters and [0:3] for a range of an array";
   CLI::App* list =
      _subVerb(*shadow, "list", "registers", "List registers: value, wish, whether they differ",
               [this](Report& report) { listShadow(_shadowView(), _arguments.patterns, report); });
   _words(*list, "PATTERN", _arguments.patterns, patternHelp);
   CLI::App* get =
      _subVerb(*shadow, "get", "registers", "Print what registers hold",
               [this](Report& report) { getShadow(_shadowView(), _arguments.patterns, report); });
   _words(*get, "PATTERN", _arguments.patterns, patternHelp)->required();
   CLI::App* set = _subVerb(
      *shadow, "set", "registers", "Wish registers to hold values", [this](Report& report) {
         _arguments.shadowSet.timeout = seconds(_arguments.shadowTimeout);
         setShadow(_shadowView(), _arguments.assignments, _arguments.shadowSet, report);
      });
   _words(*set, "NAME=VALUE", _arguments.assignments,
          "What to wish; values in decimal, 0x hexadecimal or 0b binary")
      ->required();
   CLI::Option* wait =
      set->add_flag("--wait", _arguments.shadowSet.wait, "Until all of it is held");
   _seconds(*set, "--timeout", _arguments.shadowTimeout,
            "Seconds to wait at most, exit code 6 then");
   set->get_option("--timeout")->needs(wait);
   CLI::App* unset =
      _subVerb(*shadow, "unset", "registers", "Take wishes back; writes nothing",
               [this](Report& report) { unsetShadow(_shadowView(), _arguments.patterns, report); });
   _words(*unset, "PATTERN", _arguments.patterns, patternHelp)->required();
   CLI::App* watch =
      _subVerb(*shadow, "watch", "registers", "Print what registers hold, and what they change to",
               [this](Report& report) {
                  ShadowWatchOptions options{.count = _arguments.tableCount};
                  if (_arguments.tableTimeout > 0) {
                     options.timeout = seconds(_arguments.tableTimeout);
                  }
                  watchShadow(_shadowView(), _arguments.patterns, options, report);
               });
   _words(*watch, "PATTERN", _arguments.patterns, patternHelp);
   watch->add_option("--count", _arguments.tableCount, "Changes; without it until interrupted")
      ->option_text("N")
      ->check(CLI::PositiveNumber);
   _seconds(*watch, "--timeout", _arguments.tableTimeout,
            "Seconds until it ends; with --count, exit code 6 then");
   CLI::App* diff =
      _subVerb(*shadow, "diff", "registers", "Compare what registers hold with what is wished",
               [this](Report& report) { diffShadow(_shadowView(), _arguments.patterns, report); });
   _words(*diff, "PATTERN", _arguments.patterns, patternHelp);
   _shadowOrderVerbs(*shadow);
   _shadowCoreVerbs(*shadow);
}

void Command::_shadowOrderVerbs(CLI::App& shadow) {
   CLI::App* order = _subVerb(
      shadow, "order", "registers", "Have registers written in order, as one operation",
      [this](Report& report) {
         _arguments.shadowOrder = {!_arguments.shadowNoWait, seconds(_arguments.shadowTimeout)};
         orderShadow(_shadowView(), _arguments.assignments, _arguments.shadowOrder, report);
      });
   _words(*order, "NAME=VALUE", _arguments.assignments,
          "The writes; values in decimal, 0x hexadecimal or 0b binary")
      ->required();
   _seconds(*order, "--timeout", _arguments.shadowTimeout,
            "Seconds to wait for its end at most, exit code 6 then; it stands");
   order
      ->add_flag("--no-wait", _arguments.shadowNoWait,
                 "Only print the operation's id, for outcome and cancel")
      ->excludes("--timeout");
   order->footer("Prints the writes that were made; where one fails it stops, exit code 5.\n"
                 "\n"
                 "Examples:\n"
                 "  tarnreg -b board.toml -d fpga shadow order RESET=1 MODE=3 RESET=0\n"
                 "  tarnreg -b board.toml -d fpga shadow order $(cat writes.txt) --no-wait");
   CLI::App* outcome = _subVerb(
      shadow, "outcome", "registers", "Print what came of an operation", [this](Report& report) {
         showOutcome(_shadowView(), _arguments.orderId, seconds(_arguments.shadowTimeout), report);
      });
   outcome->add_option("ID", _arguments.orderId, "The id that order --no-wait has printed")
      ->required();
   _seconds(*outcome, "--timeout", _arguments.shadowTimeout,
            "Seconds to wait for its end at most, exit code 6 then");
   CLI::App* cancel =
      _subVerb(shadow, "cancel", "registers", "Take an operation back that has not begun",
               [this](Report& report) { cancelOrder(_shadowView(), _arguments.orderId, report); });
   cancel->add_option("ID", _arguments.orderId, "The id that order --no-wait has printed")
      ->required();
}

void Command::_shadowCoreVerbs(CLI::App& shadow) {
   CLI::App* state =
      _subVerb(shadow, "state", "cores", "Print how cores are, and whether their owners live",
               [this](Report& report) { showCores(_tableDirectory(), _cores(false), report); });
   _words(*state, "CORE", _arguments.cores, "Names; without any --device, or else all there are");
   state->footer("Needs no board file.\n"
                 "\n"
                 "Examples:\n"
                 "  tarnreg shadow state\n"
                 "  tarnreg shadow state fpga --json");
   CLI::App* resync = _subVerb(
      shadow, "resync", "cores", "Have all registers of cores read anew by their owners",
      [this](Report& report) {
         resyncCores(_tableDirectory(), _cores(true), seconds(_arguments.shadowTimeout), report);
      });
   _words(*resync, "CORE", _arguments.cores, "Names; without any --device");
   _seconds(*resync, "--timeout", _arguments.shadowTimeout,
            "Seconds to wait for each at most, exit code 6 then; the request stands");
   resync->footer("Needs no board file.\n"
                  "\n"
                  "Example:\n"
                  "  tarnreg shadow resync fpga --timeout 60");
}

std::vector<std::string> Command::_cores(bool needed) const {
   if (!_arguments.cores.empty()) {
      return _arguments.cores;
   }
   if (!_options.device.empty()) {
      return {_options.device};
   }
   if (needed) {
      throw Failure(ExitCode::usage, "the core's name is needed, or --device");
   }
   return {};
}

ShadowView& Command::_shadowView() {
   if (_options.device.empty()) {
      throw Failure(ExitCode::usage, "--device is needed: the core's name in the board file");
   }
   const DevicePlace place = devicePlace(_options);
   _shadow =
      std::make_unique<ShadowView>(_tableDirectory(), _options.device, place.list, place.url);
   return *_shadow;
}

Platform::Tables::TableDirectory Command::_tableDirectory() const {
   using Platform::Tables::TableDirectory;
   return _arguments.tableDirectory.empty() ? TableDirectory()
                                            : TableDirectory(_arguments.tableDirectory);
}

void Command::_diff(Report& report) {
   if (!_arguments.dumpFile.empty()) {
      const SavedDump dump(_arguments.dumpFile);
      diffDump(_device(), dump, _arguments.patterns, report);
      return;
   }
   DevicePlace place = devicePlace(_options);
   if (_arguments.otherDevice.empty()) {
      Options options = _options;
      options.device.clear();
      options.file = place.list;
      options.transport = _arguments.otherTransport;
      place = devicePlace(options);
   } else {
      Options options = _options;
      options.file.clear();
      options.transport.clear();
      options.device = _arguments.otherDevice;
      place = devicePlace(options);
   }
   checkValuesFile(place.url.valuesFile(), false);
   Device other(place.list, place.url, _failures, _platforms);
   _bound(other);
   diffDevices(_device(&other), other, _arguments.patterns, _arguments.diffAll, report);
}

void Command::_installTrace() {
   // The failures themselves must reach the FailureSink; a person sees trace lines only on demand.
   const bool fromEnvironment = std::getenv("TARN_TRACE") != nullptr;
   const bool wanted = _options.trace >= 0 || fromEnvironment;
   _failures = std::make_shared<FailureSink>(
      wanted ? std::make_shared<Platform::Trace::StderrSink>() : nullptr);
   if (_options.trace >= 0) {
      Platform::Trace::levelsAre(fmt::format("*={}", _options.trace));
   }
   Platform::Trace::sinkIs(_failures);
}

void Command::_accessTimeout(CLI::App& verb) {
   _seconds(verb, "--timeout", _arguments.accessTimeout,
            "Seconds that an access may take through sorn:, exit code 6");
}

void Command::_bound(Device& device) const {
   if (_arguments.accessTimeout > 0) {
      device.accessTimeoutIs(millisecondsOf(seconds(_arguments.accessTimeout)));
   }
}

Device& Command::_device(const Device* other) {
   if (!_opened) {
      const DevicePlace place = devicePlace(_options);
      checkValuesFile(place.url.valuesFile(),
                      (_verbName == "write" && !_arguments.write.dryRun) || _verbName == "call");
      _opened = std::make_unique<Device>(place.list, place.url, _failures, _platforms);
      _bound(*_opened);
   }
   if (_arguments.accessTimeout > 0 && !_opened->isAsync() && !(other && other->isAsync())) {
      throw Failure(ExitCode::usage, "--timeout bounds accesses of sorn: transports only");
   }
   return *_opened;
}

Console& Command::_talk() {
   return *_console;
}

ExitCode Command::run(int argc, char** argv) {
   try {
      _app.parse(guardedWords(argc, argv));
   } catch (const CLI::ParseError& error) {
      if (_app.exit(error) != 0) {
         return ExitCode::usage;
      }
      Console console(std::cin, std::cout, std::cerr, Console::colorWanted(_options.color));
      return console.finish() ? ExitCode::ok : ExitCode::general;
   }
   _installTrace();
   _console = std::make_unique<Console>(std::cin, std::cout, std::cerr,
                                        Console::colorWanted(_options.color));
   if (Console::progressWanted(_options.json)) {
      _console->progressAfterIs(std::chrono::milliseconds(500));
   }
   return _runVerb();
}

ExitCode Command::_runVerb() {
   Report report(*_console, _verbName, _listName, _options.json, _options.base);
   try {
      _action(report);
   } catch (const Failure& failure) {
      report.failure(failure.code(), failure.what());
   } catch (const std::exception& error) {
      report.failure(ExitCode::general, error.what());
   }
   return report.finish();
}

} // namespace

ExitCode runCommandLine(int argc, char** argv) {
   return Command().run(argc, argv);
}

} // namespace TarnReg
