"""tarnreg shadow: registers of a core that another process owns."""

import json
import os
import shutil
import signal
import subprocess
import tempfile
import unittest

from support import TARNREG, TIMEOUT, TarnregTest, environment, run

OWNER = os.environ["SHADOW_OWNER"]
WRITER = os.environ["TABLE_WRITER"]


class Shadow(TarnregTest):
    def setUp(self):
        super().setUp()
        self.tables = tempfile.mkdtemp(prefix="tarn-test-", dir="/dev/shm")
        self.addCleanup(shutil.rmtree, self.tables)
        self.list("4,FPGA_ID,id,false,32\n5,SCRATCH,scratch,true,32\n6,LED,led,true,4\n")
        # The verbs must not touch the device: this one cannot be opened.
        self.board = self.write("board.toml", '[devices.fpga]\nlist = "list.csv"\n'
                                'transport = "i2c:/dev/none@0x50?flavour=2"\n')

    def start(self, *words):
        """A process that plays an owner, or writes a table; it ends with the test."""
        process = subprocess.Popen(
            words, env=environment(TARN_TABLE_DIR=self.tables), text=True, bufsize=1,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait, TIMEOUT)
        self.addCleanup(process.stdin.close)
        self.assertIn(process.stdout.readline(), ("ready\n", "mounted\n"))
        return process

    def owner(self, *words):
        return self.start(OWNER, "fpga", *words)

    def shadow(self, *arguments):
        done = run("-b", self.board, "-d", "fpga", "shadow", *arguments,
                   env={"TARN_TABLE_DIR": self.tables})
        return done.code, done.out, done.err

    def test_lists_value_wish_and_difference(self):
        self.owner("4=0xabc", "5=1", "6=2", "6")
        self.assertEqual(self.shadow("set", "SCRATCH=7", "--wait"), (0, "SCRATCH  0x00000007\n", ""))
        self.assertEqual(self.shadow("set", "LED=3"), (0, "LED  0x3\n", ""))
        self.assertEqual(
            self.shadow("list"),
            (0, "FPGA_ID  0x00000abc  -\n"
                "SCRATCH  0x00000007  0x00000007\n"
                "LED      0x2  0x3  differs\n", ""),
        )
        code, out, _ = self.shadow("list", "LED", "--json")
        self.assertEqual(code, 0)
        self.assertEqual(json.loads(out)["registers"], [{
            "name": "LED", "address": 6, "width": 4, "arraySize": 1, "type": "led",
            "writable": True, "value": 2, "wish": 3, "differs": True,
        }])

    def test_gets_what_is_held(self):
        self.owner("4=0xabc", "5=1")
        self.assertEqual(self.shadow("get", "FPGA_ID", "SCR*"),
                         (0, "FPGA_ID  0x00000abc\nSCRATCH  0x00000001\n", ""))

    def test_a_register_without_a_value_hides_no_other(self):
        self.owner("5=1")
        self.assertEqual(
            self.shadow("get", "FPGA_ID", "SCRATCH"),
            (5, "SCRATCH  0x00000001\n",
             "tarnreg: error: core 'fpga' is not ready: nothing is known of register 'FPGA_ID' yet\n"),
        )

    def test_without_an_owner_nothing_is_known_and_nothing_is_made(self):
        self.assertEqual(self.shadow("get", "SCRATCH")[0], 5)
        warning = ("tarnreg: warning: core 'fpga' is not ready, nothing is known of its registers: "
                   "no owner of it has shown itself\n")
        self.assertEqual(self.shadow("list", "SCRATCH"), (0, "SCRATCH  -  -\n", warning))
        self.assertEqual(self.shadow("watch", "SCRATCH", "--timeout", "0.01"), (0, "", warning))
        self.assertEqual(self.shadow("diff"), (0, "", "tarnreg: note: nothing is wished of them\n"))
        self.assertEqual(self.shadow("unset", "SCRATCH"),
                         (0, "", "tarnreg: note: nothing was wished of them\n"))
        self.assertEqual([name for name in os.listdir(self.tables) if name.endswith(".tbl")], [])

    def test_an_owner_that_comes_later_finds_the_wish(self):
        self.assertEqual(self.shadow("set", "SCRATCH=7"), (0, "SCRATCH  0x00000007\n", ""))
        self.owner("5=1")
        self.assertEqual(self.shadow("get", "SCRATCH"), (0, "SCRATCH  0x00000007\n", ""))

    def test_what_an_owner_left_is_shown_with_a_warning(self):
        owner = self.owner("5=1")
        owner.stdin.close()
        owner.wait(TIMEOUT)
        warning = ("tarnreg: warning: core 'fpga' is not ready, its registers are shown as they were "
                   "last known: its owner does not run any more\n")
        self.assertEqual(self.shadow("get", "SCRATCH"), (0, "SCRATCH  0x00000001\n", warning))
        self.assertEqual(self.shadow("list", "SCRATCH"), (0, "SCRATCH  0x00000001  -\n", warning))
        code, out, err = self.shadow("get", "SCRATCH", "--json")
        self.assertEqual((code, json.loads(out)["ready"], err), (0, False, warning))

    def test_unknown_names_are_told(self):
        self.owner()
        for arguments in (("get", "SCRATCHY"), ("set", "SCRATCHY=1"), ("unset", "SCRATCHY"),
                          ("list", "SCRATCHY"), ("diff", "SCRATCHY")):
            self.assertEqual(
                self.shadow(*arguments),
                (3, "", "tarnreg: error: no register SCRATCHY; did you mean SCRATCH?\n"), arguments)

    def test_one_bad_wish_and_nothing_is_wished(self):
        self.owner("5=1")
        for bad, expected in (("FPGA_ID=1", 4), ("LED=16", 2), ("LED", 2), ("LED=x", 2)):
            code, out, err = self.shadow("set", "SCRATCH=9", bad)
            self.assertEqual((code, out), (expected, ""), err)
        self.assertEqual(self.shadow("list", "SCRATCH"), (0, "SCRATCH  0x00000001  -\n", ""))

    def test_what_is_not_held_in_time_is_told_and_the_wish_stands(self):
        self.owner("5=1", "6=2", "6")
        self.assertEqual(
            self.shadow("set", "SCRATCH=9", "LED=3", "--wait", "--timeout", "0.5"),
            (6, "SCRATCH  0x00000009\n",
             "tarnreg: error: LED is 0x2, not 0x3, after 0.5 s; the wish stands\n"),
        )
        self.assertEqual(
            self.shadow("diff"),
            (1, "LED      0x2  0x3\n", "tarnreg: error: 1 of 2 wishes are not held\n"),
        )
        self.assertEqual(self.shadow("unset", "*"),
                         (0, "SCRATCH  0x00000009\nLED      0x3\n", ""))
        self.assertEqual(self.shadow("diff"), (0, "", "tarnreg: note: nothing is wished of them\n"))
        self.assertEqual(self.shadow("get", "SCRATCH"), (0, "SCRATCH  0x00000009\n", ""))

    def test_a_wish_for_what_has_no_value_differs(self):
        self.shadow("set", "LED=3")
        self.assertEqual(
            self.shadow("diff", "LED"),
            (1, "LED  -  0x3\n", "tarnreg: error: 1 of 1 wishes are not held\n"),
        )
        code, out, err = self.shadow("set", "LED=3", "--wait", "--timeout", "0")
        self.assertEqual((code, out), (6, ""))
        self.assertEqual(err, "tarnreg: error: LED is not known to be 0x3 after 0 s, and the wish "
                              "stands; core 'fpga' is not ready: no owner of it has shown itself\n")
        self.owner("6")
        code, out, err = self.shadow("set", "LED=3", "--wait", "--timeout", "0")
        self.assertEqual((code, out), (6, ""))
        self.assertEqual(err, "tarnreg: error: LED has no value yet, not 0x3, after 0 s; the wish "
                              "stands\n")

    def test_watches_what_is_held_and_its_changes(self):
        writer = self.start(WRITER, "fpga/status")

        def tell(command):
            writer.stdin.write(command + "\n")
            self.assertEqual(writer.stdout.readline(), "done\n")

        tell("put 5 1")
        watching = subprocess.Popen(
            [TARNREG, "-b", self.board, "-d", "fpga", "shadow", "watch", "SCRATCH", "LED",
             "--count", "3"],
            stdout=subprocess.PIPE, text=True, env=environment(TARN_TABLE_DIR=self.tables),
        )
        self.addCleanup(watching.stdout.close)
        self.addCleanup(watching.kill)
        self.assertEqual(watching.stdout.readline(), "SCRATCH  0x00000001\n")
        tell("put 5 2")
        self.assertEqual(watching.stdout.readline(), "SCRATCH  0x00000002\n")
        tell("put 4 9")
        tell("put 6 3")
        self.assertEqual(watching.stdout.readline(), "LED      0x3\n")
        tell("del 5")
        out, _ = watching.communicate(timeout=TIMEOUT)
        self.assertEqual((watching.returncode, out), (0, "SCRATCH  -\n"))

    def test_a_watch_ends_when_its_time_is_over(self):
        self.owner("5=1")
        self.assertEqual(self.shadow("watch", "SCRATCH", "--timeout", "0.1"),
                         (0, "SCRATCH  0x00000001\n", ""))
        code, _, err = self.shadow("watch", "SCRATCH", "--count", "1", "--timeout", "0.1")
        self.assertEqual((code, err), (6, "tarnreg: error: 0 of 1 changes came in time\n"))
        self.assertEqual(self.shadow("watch", "--json")[0], 2)

    def test_a_watch_ends_when_nobody_reads_it_any_more(self):
        self.owner("5=1")
        watching = subprocess.Popen([TARNREG, "-b", self.board, "-d", "fpga", "shadow", "watch"],
                                    stdout=subprocess.PIPE, text=True,
                                    env=environment(TARN_TABLE_DIR=self.tables))
        self.addCleanup(watching.kill)
        self.assertEqual(watching.stdout.readline(), "SCRATCH  0x00000001\n")
        watching.stdout.close()
        self.assertEqual(watching.wait(TIMEOUT), -signal.SIGPIPE)

    def test_a_core_that_was_mistyped(self):
        self.owner("5=1")
        code, out, err = run("shadow", "state", "fgpa",
                             env={"TARN_TABLE_DIR": self.tables}).__dict__.values()
        self.assertEqual((code, out, err), (3, "", "tarnreg: error: core 'fgpa': no owner of it has "
                                            "shown itself; did you mean fpga?\n"))
        result = run("table", "dump", "fpga/stats", env={"TARN_TABLE_DIR": self.tables})
        self.assert_run(result, 3, "")
        self.assertIn("there is no shared table 'fpga/stats'; did you mean fpga/stat", result.err)

    def test_a_watch_prints_lines_of_json(self):
        owner = self.owner("4=1", "5=1")
        watching = subprocess.Popen(
            [TARNREG, "-b", self.board, "-d", "fpga", "shadow", "watch", "SCRATCH", "LED",
             "--json-lines", "--count", "1"],
            stdout=subprocess.PIPE, text=True, env=environment(TARN_TABLE_DIR=self.tables))
        self.addCleanup(watching.stdout.close)
        self.addCleanup(watching.kill)
        first = json.loads(watching.stdout.readline())
        self.assertEqual((first["schema"], first["name"], first["value"], first["previous"]),
                         ("tarnreg-watch/1", "SCRATCH", 1, None))
        self.assertEqual(self.shadow("set", "SCRATCH=7", "--wait")[0], 0)
        second = json.loads(watching.stdout.readline())
        self.assertEqual((second["name"], second["value"], second["previous"]), ("SCRATCH", 7, 1))
        self.assertGreaterEqual(second["time"], first["time"])
        self.assertEqual(watching.wait(TIMEOUT), 0)
        self.assertEqual(watching.stdout.read(), "")
        self.assertIsNone(owner.poll())

    def test_lines_of_json_have_failures_too(self):
        self.owner("5=1")
        code, out, err = self.shadow("watch", "NOPE", "SCRATCH", "--json-lines", "--count", "1",
                                     "--timeout", "0.01")
        error, change, late = (json.loads(line) for line in out.splitlines())
        self.assertEqual((code, error["name"], error["error"]["code"]), (3, "NOPE", "unknown-name"))
        self.assertEqual((change["name"], change["value"]), ("SCRATCH", 1))
        self.assertEqual(late["error"], {"code": "timeout", "text": "0 of 1 changes came in time"})
        self.assertIn("0 of 1 changes came in time", err)
        self.assertEqual(self.shadow("watch", "--json-lines", "--json")[0], 2)

    def test_a_damaged_table_is_told(self):
        owner = self.owner("5=1")
        owner.stdin.close()
        owner.wait(TIMEOUT)
        for name in ("fpga%2Fstatus.tbl", "fpga%2Fconfig.tbl"):
            os.truncate(os.path.join(self.tables, name), 100)
        for arguments in (("get", "SCRATCH"), ("set", "SCRATCH=1"), ("list",)):
            code, out, err = self.shadow(*arguments)
            self.assertEqual((code, out), (1, ""), arguments)
            self.assertIn("is shorter than its header", err)

    def test_a_core_is_named_by_the_board_file(self):
        code, out, err = run("-f", self.path("list.csv"), "shadow", "list",
                             env={"TARN_TABLE_DIR": self.tables}).__dict__.values()
        self.assertEqual((code, out), (2, ""))
        self.assertIn("--device is needed", err)
        self.assertEqual(self.shadow()[0], 2)
        self.assertEqual(self.shadow("set", "SCRATCH=1", "--timeout", "1")[0], 2)


if __name__ == "__main__":
    unittest.main()
