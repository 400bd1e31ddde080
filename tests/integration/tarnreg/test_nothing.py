"""What tarnreg says when there is nothing to show, or nobody to show it to."""

import signal
import subprocess
import unittest

from support import TARNREG, TIMEOUT, TarnregTest, environment, run


class Nothing(TarnregTest):
    """Said on standard error, of which scripts see nothing, and no failure."""

    def assert_nothing(self, note, *arguments, **env):
        self.assert_run(run(*arguments, env=env), 0, "", f"tarnreg: note: {note}\n")
        result = run("--json", *arguments, env=env)
        self.assert_run(result, 0, err="")
        self.assertEqual(result.document["errors"], [])

    def test_a_board_without_devices(self):
        board = self.write("board.toml", "")
        self.assert_nothing(f"{board} describes no devices", "-b", board, "devices")

    def test_a_list_without_registers(self):
        path = self.list("")
        for verb in (("list",), ("dump",), ("watch", "--count", "1")):
            self.assert_nothing("the register list has no registers", "-f", path, *verb)
        self.assert_run(run("-f", path, "top"), 0, "",
                        "tarnreg: note: the register list has no registers\n")

    def test_a_dump_of_what_is_only_read_on_demand(self):
        path = self.list("0,A,cfg,true,8\n")
        self.assert_nothing("all of them are configuration registers (type cfg), which --all reads too",
                            "-f", path, "dump")
        self.assert_run(run("-f", path, "dump", "--all"), 0, "A  0x00\n", "")

    def test_a_comparison_with_an_empty_dump(self):
        path = self.list("0,A,control,true,8\n")
        self.assert_nothing("the dump has no registers", "-f", path, "diff", "--with-dump",
                            self.write("dump", ""))

    def test_no_tables_and_no_cores(self):
        for verb in (("table", "list"), ("table", "audit")):
            self.assert_nothing(f"there are no shared tables in {self.dir}", *verb,
                                TARN_TABLE_DIR=self.dir)
        self.assert_nothing(f"no core has shown itself in {self.dir}; tarn-shadowd owns some",
                            "shadow", "state", TARN_TABLE_DIR=self.dir)

    def test_what_was_found_is_not_commented(self):
        self.assert_run(run("-f", self.list("0,A,cfg,true,8\n1,B,control,true,8\n"), "dump"), 0,
                        "B  0x00\n", "")


class NoReader(TarnregTest):
    """Who has seen enough of what goes on does not have to wait for the next change."""

    def ends_without_a_reader(self, *arguments, first):
        process = subprocess.Popen([TARNREG, *arguments], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, env=environment(TARN_TABLE_DIR=self.dir))
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.kill)
        self.assertEqual(process.stdout.readline().decode(), first)
        process.stdout.close()
        self.assertEqual(process.wait(TIMEOUT), -signal.SIGPIPE)

    def test_ends_a_watch_of_what_does_not_change(self):
        path = self.list("0,A,control,true,8\n")
        self.ends_without_a_reader("-f", path, "watch", "--interval", "86400", first="A  0x00\n")
        script = self.write("script", "read A\nwait 86400\n")
        self.ends_without_a_reader("-f", path, "script", script, first="A  0x00\n")


class Near(TarnregTest):
    """Names that were mistyped."""

    def test_types_and_operations(self):
        result = run("describe", "TransportMethd")
        self.assert_run(result, 3, "")
        self.assertIn("; did you mean TransportMethod", result.err)
        result = run("-f", self.list("0,A,control,true,8\n"), "call", "regReed", "A")
        self.assert_run(result, 3, "")
        self.assertIn("no operation regReed; describe TransportMethod lists them; did you mean "
                      "regRead", result.err)

    def test_nothing_near_is_not_asked_for(self):
        result = run("describe", "Zebra")
        self.assert_run(result, 3, "", "tarnreg: error: no type Zebra; describe without a name "
                        "lists them\n")


if __name__ == "__main__":
    unittest.main()
