#include "tools/tarnreg/Command.h"
#include "tools/tarnreg/TableVerbs.h"

namespace TarnReg {

void Command::_tableVerbs() {
   CLI::App* table = _app.add_subcommand("table", "Look at the shared tables of this machine\n"
                                                  "\n"
                                                  "Examples:\n"
                                                  "  tarnreg table list\n"
                                                  "  tarnreg table dump fpga/status");
   table->footer(verbFooter);
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
   _subVerb(*table, "list", "tables",
            "List the tables: what they hold, who has them mounted\n"
            "\n"
            "Examples:\n"
            "  tarnreg table list\n"
            "  tarnreg table list --dir /run/tarn --json",
            [this](Report& report) { listTables(_tableDirectory(), report); });
   named(_subVerb(
      *table, "describe", "facts",
      "Say all that is known of a table\n"
      "\n"
      "Example:\n"
      "  tarnreg table describe fpga/config",
      [this](Report& report) { describeTable(_tableDirectory(), _arguments.table, report); }));
   named(
      _subVerb(*table, "dump", "records",
               "Print every record of a table\n"
               "\n"
               "Example:\n"
               "  tarnreg table dump fpga/status",
               [this](Report& report) { dumpTable(_tableDirectory(), _arguments.table, report); }));
   CLI::App* watch =
      named(_subVerb(*table, "watch", "changes",
                     "Print the changes of a table as they come\n"
                     "\n"
                     "Examples:\n"
                     "  tarnreg table watch fpga/status\n"
                     "  tarnreg table watch fpga/status --count 10 --timeout 60",
                     [this](Report& report) {
                        TableWatchOptions options{.count = _arguments.tableCount};
                        if (_arguments.tableTimeout > 0) {
                           options.timeout = seconds(_arguments.tableTimeout);
                        }
                        watchTable(_tableDirectory(), _arguments.table, options, report);
                     }));
   watch->add_option("--count", _arguments.tableCount, "Changes; without it until interrupted")
      ->option_text("N")
      ->transform(countCheck());
   _seconds(*watch, "--timeout", _arguments.tableTimeout,
            "Seconds until it ends; with --count, exit code 6 then");
   CLI::App* audit = _subVerb(
      *table, "audit", "tables",
      "Look through tables for damage\n"
      "\n"
      "Examples:\n"
      "  tarnreg table audit\n"
      "  tarnreg table audit fpga/config fpga/status",
      [this](Report& report) { auditTables(_tableDirectory(), _arguments.tables, report); });
   _words(*audit, "TABLE", _arguments.tables, "The tables' names; without any, all of them");
   CLI::App* remove = named(_subVerb(*table, "remove", "tables",
                                     "Remove a table and all that it holds\n"
                                     "\n"
                                     "Example:\n"
                                     "  tarnreg table remove fpga/config",
                                     [this](Report& report) {
                                        removeTable(_tableDirectory(), _arguments.table,
                                                    _arguments.tableForce, report);
                                     }));
   remove->add_flag("--force", _arguments.tableForce, "Also one that is mounted");
}

} // namespace TarnReg
