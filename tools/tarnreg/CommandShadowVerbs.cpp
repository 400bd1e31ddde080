#include "tools/tarnreg/Command.h"
#include "tools/tarnreg/DevicePlace.h"
#include "tools/tarnreg/Failure.h"
#include "tools/tarnreg/ShadowCoreVerbs.h"

namespace TarnReg {

void Command::_shadowVerbs() {
   CLI::App* shadow = _app.add_subcommand(
      "shadow", "Registers of a device that another process owns, in shared memory\n"
                "\n"
                "Examples:\n"
                "  tarnreg shadow state\n"
                "  tarnreg -b board.toml -d fpga shadow list 'FAN*'\n"
                "  tarnreg -b board.toml -d fpga shadow set SCRATCH=7 --wait");
   shadow->footer(verbFooter);
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
      _subVerb(*shadow, "list", "registers",
               "List registers: value, wish, whether they differ\n"
               "\n"
               "Examples:\n"
               "  tarnreg -b board.toml -d fpga shadow list\n"
               "  tarnreg -b board.toml -d fpga shadow list 'FAN*' --json",
               [this](Report& report) { listShadow(_shadowView(), _arguments.patterns, report); });
   _words(*list, "PATTERN", _arguments.patterns, patternHelp);
   CLI::App* get =
      _subVerb(*shadow, "get", "registers",
               "Print what registers hold\n"
               "\n"
               "Example:\n"
               "  tarnreg -b board.toml -d fpga shadow get FPGA_ID 'FAN*_TACH'",
               [this](Report& report) { getShadow(_shadowView(), _arguments.patterns, report); });
   _words(*get, "PATTERN", _arguments.patterns, patternHelp)->required();
   CLI::App* set =
      _subVerb(*shadow, "set", "registers",
               "Wish registers to hold values\n"
               "\n"
               "Examples:\n"
               "  tarnreg -b board.toml -d fpga shadow set SCRATCH=7 --wait\n"
               "  tarnreg -b board.toml -d fpga shadow set 'LED*=0'",
               [this](Report& report) {
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
      _subVerb(*shadow, "unset", "registers",
               "Take wishes back; writes nothing\n"
               "\n"
               "Example:\n"
               "  tarnreg -b board.toml -d fpga shadow unset 'LED*'",
               [this](Report& report) { unsetShadow(_shadowView(), _arguments.patterns, report); });
   _words(*unset, "PATTERN", _arguments.patterns, patternHelp)->required();
   CLI::App* watch = _subVerb(
      *shadow, "watch", "registers",
      "Print what registers hold, and what they change to\n"
      "\n"
      "Examples:\n"
      "  tarnreg -b board.toml -d fpga shadow watch 'FAN*_TACH'\n"
      "  tarnreg -b board.toml -d fpga shadow watch --json-lines | jq -c '[.name, .value]'",
      [this](Report& report) {
         ShadowWatchOptions options{.count = _arguments.tableCount};
         if (_arguments.tableTimeout > 0) {
            options.timeout = seconds(_arguments.tableTimeout);
         }
         watchShadow(_shadowView(), _arguments.patterns, options, report);
      });
   _jsonLines(*watch);
   _words(*watch, "PATTERN", _arguments.patterns, patternHelp);
   watch->add_option("--count", _arguments.tableCount, "Changes; without it until interrupted")
      ->option_text("N")
      ->transform(countCheck());
   _seconds(*watch, "--timeout", _arguments.tableTimeout,
            "Seconds until it ends; with --count, exit code 6 then");
   CLI::App* diff =
      _subVerb(*shadow, "diff", "registers",
               "Compare what registers hold with what is wished\n"
               "\n"
               "Example:\n"
               "  tarnreg -b board.toml -d fpga shadow diff",
               [this](Report& report) { diffShadow(_shadowView(), _arguments.patterns, report); });
   _words(*diff, "PATTERN", _arguments.patterns, patternHelp);
   _shadowOrderVerbs(*shadow);
   _shadowCoreVerbs(*shadow);
}

void Command::_shadowOrderVerbs(CLI::App& shadow) {
   CLI::App* order = _subVerb(
      shadow, "order", "registers",
      "Have registers written in order, as one operation\n"
      "\n"
      "Examples:\n"
      "  tarnreg -b board.toml -d fpga shadow order RESET=1 MODE=3 RESET=0\n"
      "  tarnreg -b board.toml -d fpga shadow order $(cat writes.txt) --no-wait\n"
      "\n"
      "Prints the writes that were made; where one fails it stops, exit code 5.",
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
   CLI::App* outcome = _subVerb(shadow, "outcome", "registers",
                                "Print what came of an operation\n"
                                "\n"
                                "Example:\n"
                                "  tarnreg -b board.toml -d fpga shadow outcome $id",
                                [this](Report& report) {
                                   showOutcome(_shadowView(), _arguments.orderId,
                                               seconds(_arguments.shadowTimeout), report);
                                });
   outcome->add_option("ID", _arguments.orderId, "The id that order --no-wait has printed")
      ->required();
   _seconds(*outcome, "--timeout", _arguments.shadowTimeout,
            "Seconds to wait for its end at most, exit code 6 then");
   CLI::App* cancel =
      _subVerb(shadow, "cancel", "registers",
               "Take an operation back that has not begun\n"
               "\n"
               "Example:\n"
               "  tarnreg -b board.toml -d fpga shadow cancel $id",
               [this](Report& report) { cancelOrder(_shadowView(), _arguments.orderId, report); });
   cancel->add_option("ID", _arguments.orderId, "The id that order --no-wait has printed")
      ->required();
}

void Command::_shadowCoreVerbs(CLI::App& shadow) {
   CLI::App* state =
      _subVerb(shadow, "state", "cores",
               "Print how cores are, and whether their owners live\n"
               "\n"
               "Examples:\n"
               "  tarnreg shadow state\n"
               "  tarnreg shadow state fpga --json\n"
               "\n"
               "Needs no board file.",
               [this](Report& report) { showCores(_tableDirectory(), _cores(false), report); });
   _words(*state, "CORE", _arguments.cores, "Names; without any --device, or else all there are");
   CLI::App* resync = _subVerb(shadow, "resync", "cores",
                               "Have all registers of cores read anew by their owners\n"
                               "\n"
                               "Example:\n"
                               "  tarnreg shadow resync fpga --timeout 60\n"
                               "\n"
                               "Needs no board file.",
                               [this](Report& report) {
                                  resyncCores(_tableDirectory(), _cores(true),
                                              seconds(_arguments.shadowTimeout), report);
                               });
   _words(*resync, "CORE", _arguments.cores, "Names; without any --device");
   _seconds(*resync, "--timeout", _arguments.shadowTimeout,
            "Seconds to wait for each at most, exit code 6 then; the request stands");
}

std::vector<std::string> Command::_cores(bool needed) const {
   if (!_arguments.cores.empty()) {
      return _arguments.cores;
   }
   if (!_session.options.device.empty()) {
      return {_session.options.device};
   }
   if (needed) {
      throw Failure(ExitCode::usage, "the core's name is needed, or --device");
   }
   return {};
}

ShadowView& Command::_shadowView() {
   if (_session.options.device.empty()) {
      throw Failure(ExitCode::usage, "--device is needed: the core's name in the board file");
   }
   const DevicePlace place = devicePlace(_session.options);
   _shadow = std::make_unique<ShadowView>(_tableDirectory(), _session.options.device, place.list,
                                          place.url);
   return *_shadow;
}

} // namespace TarnReg
