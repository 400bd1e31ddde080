#include "tools/tarnreg/Command.h"

#include <cstdlib>
#include <iostream>

#include "board/HelpFormat.h"
#include "board/OptionChecks.h"
#include "board/UsageText.h"
#include "platform/trace/StderrSink.h"
#include "platform/trace/Trace.h"
#include "tools/tarnreg/DevicePlace.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/Printable.h"
#include "tools/tarnreg/ValuesFile.h"

namespace TarnReg {

namespace {

// CLI11 takes a word in brackets for a list and strips them: "[A]" would become A, the name of
// another register. So each word that begins with a bracket is parsed with a character at its end,
// which is taken away again.
constexpr char guard = '\x01';

/// What is wrong with the command line.
std::string wrong(const CLI::App& app, const CLI::Error& error) {
   std::string text = Board::usageText(app, error);
   std::erase(text, guard);
   return text;
}

} // namespace

CLI::Validator countCheck() {
   constexpr std::uint64_t most = 0xFFFFFFFF;
   return Board::wholeNumber(1, most);
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

std::vector<std::string> guardedWords(const std::vector<std::string>& words) {
   std::vector<std::string> guarded(words.rbegin(), words.rend());
   for (std::string& word : guarded) {
      if (word.starts_with('[')) {
         word += guard;
      }
   }
   return guarded;
}

std::chrono::steady_clock::duration seconds(double number) {
   return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(number));
}

Command::Command(Session& session, Kind kind) : _session(session), _app("", "tarnreg") {
   _app.require_subcommand(1);
   if (kind == Kind::process) {
      _processIs();
   } else {
      _scriptLineIs();
   }
}

void Command::_processIs() {
   Board::helpFormatIs(_app);
   _app.description(
      "Reads and writes the registers of a programmable device by name.\n"
      "\n"
      "Examples:\n"
      "  tarnreg --file board.csv list 'FAN*'\n"
      "  tarnreg --file board.csv read 'FAN[0:3]_PWM' FPGA_ID\n"
      "  tarnreg --file board.csv --transport mock:values.csv write SCRATCH=0x1234 --verify\n"
      "  tarnreg --board board.toml --device fpga read FPGA_ID\n"
      "  tarnreg check board.csv");
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
   _app.fallthrough();
   _app.set_version_flag("--version", std::string("tarnreg ") + TARNREG_VERSION);
   _app.failure_message([](const CLI::App* app, const CLI::Error& error) {
      return Board::usageMessage(*app, printable(wrong(*app, error)));
   });
   _globalOptions();
   _verbs();
}

void Command::_scriptLineIs() {
   _app.set_help_flag();
   _listVerbs();
   _accessVerbs();
   _lookVerbs();
   CLI::App* wait = _verb("wait", "registers", "Do nothing for a time", [this](Report& report) {
      report.flush();
      Pace::real().wait(seconds(_arguments.waitTime));
   });
   _seconds(*wait, "SECONDS", _arguments.waitTime, "How long");
   wait->get_option("SECONDS")->required();
   CLI::App* echo = _verb("echo", "texts", "Print its arguments", [this](Report& report) {
      const std::string text = fmt::format("{}", fmt::join(_arguments.texts, " "));
      report.event(printable(text), {{"text", jsonText(text)}});
   });
   _words(*echo, "TEXT", _arguments.texts, "What to print");
}

void Command::_globalOptions() {
   _app.add_option("--file,-f", _session.options.file, "Register list of the device (CSV)")
      ->type_name("LIST")
      ->transform(unguarded());
   _app
      .add_option("--transport,-t", _session.options.transport,
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
   _app
      .add_option("--device,-d", _session.options.device,
                  "A device of the board file, in place of both")
      ->type_name("NAME")
      ->transform(unguarded());
   _app
      .add_option("--board,-b", _session.options.board,
                  "Board file (TOML); else the one TARN_BOARD names")
      ->type_name("FILE")
      ->transform(unguarded());
   _app.add_flag("--json", _session.options.json, "Print one JSON document, schema tarnreg/1");
   _app.add_option("--base", _session.options.base, "How values are shown")
      ->option_text("hex|dec|bin")
      ->transform(oneOf<NumberBase>(
         {{"hex", NumberBase::hex}, {"dec", NumberBase::dec}, {"bin", NumberBase::bin}}));
   _app
      .add_option("--trace", _session.options.trace,
                  "Trace the library up to this level on standard error")
      ->option_text("0..9")
      ->transform(Board::wholeNumber(0, 9));
   _app.add_option("--color", _session.options.color, "When messages are coloured")
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
   verb->footer(verbFooter);
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
   return verb.add_option(name, words, help)->type_name("")->transform(unguarded());
}

void Command::_seconds(CLI::App& verb, const char* name, double& value, const char* help) {
   verb.add_option(name, value, help)->option_text("SECONDS")->check(Board::secondsUpToAYear());
}

Platform::Tables::TableDirectory Command::_tableDirectory() const {
   using Platform::Tables::TableDirectory;
   return _arguments.tableDirectory.empty() ? TableDirectory()
                                            : TableDirectory(_arguments.tableDirectory);
}

void Command::_installTrace() {
   // The failures themselves must reach the FailureSink; a person sees trace lines only on demand.
   const bool fromEnvironment = std::getenv("TARN_TRACE") != nullptr;
   const bool wanted = _session.options.trace >= 0 || fromEnvironment;
   _session.failures = std::make_shared<FailureSink>(
      wanted ? std::make_shared<Platform::Trace::StderrSink>() : nullptr);
   if (_session.options.trace >= 0) {
      Platform::Trace::levelsAre(fmt::format("*={}", _session.options.trace));
   }
   Platform::Trace::sinkIs(_session.failures);
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

bool Command::_writesValues() const {
   return (_verbName == "write" && !_arguments.write.dryRun) || _verbName == "call";
}

Device& Command::_device(const Device* other) {
   if (!_session.device) {
      const DevicePlace place = devicePlace(_session.options);
      _session.valuesFile = place.url.valuesFile();
      checkValuesFile(_session.valuesFile, _writesValues());
      _session.device =
         std::make_unique<Device>(place.list, place.url, _session.failures, _session.platforms);
      _session.accessTimeout = _session.device->accessTimeout();
   } else if (_writesValues()) {
      checkValuesFile(_session.valuesFile, true);
   }
   _session.device->accessTimeoutIs(_session.accessTimeout);
   _bound(*_session.device);
   if (_arguments.accessTimeout > 0 && !_session.device->isAsync() &&
       !(other && other->isAsync())) {
      throw Failure(ExitCode::usage, "--timeout bounds accesses of sorn: transports only");
   }
   return *_session.device;
}

Console& Command::_talk() {
   return *_session.console;
}

ExitCode Command::run(const std::vector<std::string>& words) {
   try {
      _app.parse(guardedWords(words));
   } catch (const CLI::ParseError& error) {
      if (_app.exit(error) != 0) {
         return ExitCode::usage;
      }
      Console console(std::cin, std::cout, std::cerr, Console::colorWanted(_session.options.color));
      return console.finish() ? ExitCode::ok : ExitCode::general;
   }
   _installTrace();
   _session.console = std::make_unique<Console>(std::cin, std::cout, std::cerr,
                                                Console::colorWanted(_session.options.color));
   if (Console::progressWanted(_session.options.json)) {
      _session.console->progressAfterIs(std::chrono::milliseconds(500));
   }
   Report report = _report();
   _runVerb(report);
   return report.finish();
}

Report Command::_report() const {
   Report report(*_session.console, _verbName, _listName, _session.options.json,
                 _session.options.base);
   report.jsonLinesIs(_arguments.jsonLines);
   return report;
}

void Command::_runVerb(Report& report) {
   try {
      if (_arguments.jsonLines && _session.options.json) {
         throw Failure(ExitCode::usage, "--json-lines goes without --json: it takes its place");
      }
      _action(report);
   } catch (const Failure& failure) {
      report.failure(failure.code(), failure.what());
   } catch (const std::exception& error) {
      report.failure(ExitCode::general, error.what());
   }
}

Report Command::runLine(const std::vector<std::string>& words) {
   try {
      _app.parse(guardedWords(words));
   } catch (const CLI::ParseError& error) {
      Report report(*_session.console, words.front(), "registers", _session.options.json,
                    _session.options.base);
      report.failure(ExitCode::usage, wrong(_app, error));
      return report;
   }
   Report report = _report();
   _runVerb(report);
   return report;
}

} // namespace TarnReg
