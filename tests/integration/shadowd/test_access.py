"""Who may do what with the tables of a core, with users that are really others."""

import os
import stat
import subprocess
import unittest

from agent import CLIENT, TIMEOUT, Agent, Case, wait_for

TARNREG = os.environ["TARNREG"]

# Users and groups that nobody needs to have: ids count.
MEMBER = 61001
OTHER = 61002
GROUP = 61003

BOARD = """
[devices.fpga]
list = "list.csv"
transport = "mock:"

[shadow]
cores = ["fpga"]
check_interval_ms = 0
"""

TABLES = {"config": True, "ops": True, "request": True,
          "status": False, "ops-status": False, "state": False}


@unittest.skipUnless(os.geteuid() == 0, "only root can run programs as other users")
class Access(Case):
    def setUp(self):
        super().setUp()
        os.chmod(self.dir, 0o755)
        self.board = self.write("board.toml", BOARD)

    def start(self, *options):
        self.agent = Agent(self, *options)
        wait_for(lambda: self.agent.says("Serving") or self.agent.process.poll() is not None,
                 "the agent")
        self.assertIsNone(self.agent.process.poll(), self.agent.log())
        self.await_state(phase="ready")

    def run_as(self, user, group, *words):
        done = subprocess.run([str(word) for word in words], env=self.env, capture_output=True,
                              text=True, timeout=TIMEOUT, check=False, user=user, group=group,
                              extra_groups=[])
        return done.returncode, done.stdout, done.stderr

    def tarnreg(self, user, group, *words):
        return self.run_as(user, group, TARNREG, "--board", self.board, "--device", "fpga",
                           "shadow", *words)

    def files(self, table):
        return {suffix: self.path(f"tables/fpga%2F{table}{suffix}")
                for suffix in (".tbl", ".ctl", ".bell", ".reg")}

    def mode(self, path):
        return stat.S_IMODE(os.stat(path).st_mode)

    def test_the_group_reads_and_wishes_and_others_read(self):
        self.start("--group", str(GROUP), "--others-read")
        self.client("put", "fpga/config", 8, 0x77)
        self.await_registers("0x8=0x77")
        for user, group in ((MEMBER, GROUP), (OTHER, OTHER)):
            self.assertEqual((0, "SCRATCH  0x00000077\n", ""),
                             self.tarnreg(user, group, "get", "SCRATCH"))
            code, out, err = self.tarnreg(user, group, "list", "SCRATCH")
            self.assertEqual((0, "SCRATCH  0x00000077  0x00000077\n", ""), (code, out, err))
        # The group wishes.
        self.assertEqual((0, "SCRATCH  0x00000078\n", ""),
                         self.tarnreg(MEMBER, GROUP, "set", "SCRATCH=0x78", "--wait"))
        # Others are refused, clearly, and nothing has changed.
        for words in (("set", "SCRATCH=1"), ("unset", "SCRATCH"), ("order", "SCRATCH=1"),
                      ("resync",)):
            code, out, err = self.tarnreg(OTHER, OTHER, *words)
            self.assertEqual((4, ""), (code, out), err)
            self.assertIn("Permission denied", err)
            self.assertIn("fpga", err)
        self.assertEqual(["0x8=0x78"], self.registers("fpga/config"))
        self.assertEqual([], self.ordered("fpga/ops") + self.ordered())
        self.assertEqual("1", self.state()["generation"])
        code, out, err = self.tarnreg(OTHER, OTHER, "state")
        self.assertEqual((0, ""), (code, err))
        self.assertIn("ready", out)
        for words in (("put", "fpga/config", 8, 1), ("put", "fpga/request", 0, 7),
                      ("order", "fpga", 9, 1, "8=1"), ("put", "fpga/status", 8, 1)):
            code, _, err = self.run_as(OTHER, OTHER, CLIENT, *words)
            self.assertNotEqual(0, code)
            self.assertIn("Permission denied", err)
        code, _, err = self.run_as(MEMBER, GROUP, CLIENT, "put", "fpga/status", 8, 1)
        self.assertNotEqual(0, code)
        self.assertIn("Permission denied", err)
        self.assertEqual((0, "", ""), self.run_as(MEMBER, GROUP, CLIENT, "put", "fpga/request", 0, 7))
        self.await_state(request=7, phase="ready", generation=2)
        self.assertEqual((0, "", ""),
                         self.run_as(MEMBER, GROUP, CLIENT, "order", "fpga", 9, 1, "8=2"))
        wait_for(lambda: self.ordered() == ["9/1 0x8=0x2"], "the operation")

    def test_others_can_neither_write_nor_cut_off_nor_remove_a_file(self):
        self.start("--group", str(GROUP), "--others-read")
        program = ("import os, sys\n"
                   "for path in sys.argv[1:]:\n"
                   "    for action in (lambda: os.open(path, os.O_RDWR),\n"
                   "                   lambda: os.truncate(path, 0), lambda: os.unlink(path)):\n"
                   "        try:\n"
                   "            action()\n"
                   "        except PermissionError:\n"
                   "            continue\n"
                   "        print('could change', path)\n")
        directory = self.path("tables")
        paths = [os.path.join(directory, name) for name in os.listdir(directory)]
        self.assertGreater(len(paths), 24)
        self.assertEqual((0, "", ""), self.run_as(OTHER, OTHER, "/usr/bin/python3", "-c", program,
                                                  *paths))
        code, _, _ = self.run_as(OTHER, OTHER, "/usr/bin/touch", os.path.join(directory, "x.tbl"))
        self.assertNotEqual(0, code)
        self.client("put", "fpga/config", 8, 0x77)
        self.await_registers("0x8=0x77")

    def test_a_reader_that_may_write_nothing_is_told_of_changes(self):
        self.start("--others-read")
        process = subprocess.Popen(
            [TARNREG, "--board", self.board, "--device", "fpga", "shadow", "watch", "SCRATCH",
             "--count", "1"],
            env=self.env, stdout=subprocess.PIPE, text=True, user=OTHER, group=OTHER,
            extra_groups=[])
        self.addCleanup(process.kill)
        self.addCleanup(process.stdout.close)
        self.assertEqual("SCRATCH  0x00000000\n", process.stdout.readline())
        self.client("put", "fpga/config", 8, 0x77)
        self.assertEqual("SCRATCH  0x00000077\n", process.stdout.readline())
        self.assertEqual(0, process.wait(TIMEOUT))

    def test_modes_and_groups_are_what_was_asked_for(self):
        self.start("--group", str(GROUP), "--others-read")
        self.assertEqual(0o775, self.mode(self.path("tables")))
        self.assertEqual(GROUP, os.stat(self.path("tables")).st_gid)
        for table, is_wish in TABLES.items():
            for suffix, path in self.files(table).items():
                expected = 0o664 if is_wish or suffix != ".tbl" else 0o644
                self.assertEqual(oct(expected), oct(self.mode(path)), path)
                self.assertEqual(GROUP, os.stat(path).st_gid, path)
        self.assertEqual(0o664, self.mode(self.path("tables/fpga%2Fowner.lock")))

    def test_unless_asked_others_have_no_rights(self):
        self.start()
        self.assertEqual(0o770, self.mode(self.path("tables")))
        for table, is_wish in TABLES.items():
            self.assertEqual(oct(0o660 if is_wish else 0o640),
                             oct(self.mode(self.files(table)[".tbl"])), table)
        code, out, err = self.tarnreg(OTHER, OTHER, "get", "SCRATCH")
        self.assertEqual((4, ""), (code, out), err)
        self.assertIn("Permission denied", err)

    def test_what_a_client_made_before_gets_the_rights_too(self):
        self.client("put", "fpga/config", 8, 0x77)
        with open(self.board, "a", encoding="utf-8") as file:
            file.write(f"group = {GROUP}\nothers_read = true\n")
        self.start()
        path = self.files("config")[".tbl"]
        self.assertEqual((0o664, GROUP), (self.mode(path), os.stat(path).st_gid))
        self.assertEqual((0, "SCRATCH  0x00000077  0x00000077\n", ""),
                         self.tarnreg(OTHER, OTHER, "list", "SCRATCH"))

    def test_an_agent_of_another_user_takes_over_what_only_the_agent_writes(self):
        self.start("--group", str(GROUP))
        self.client("put", "fpga/config", 8, 0x77)
        self.await_registers("0x8=0x77")
        self.assertEqual(0, self.agent.stop())
        self.agent = Agent(self, user=MEMBER, group=GROUP)
        wait_for(lambda: self.agent.says("Serving") or self.agent.process.poll() is not None,
                 "the agent")
        self.assertIsNone(self.agent.process.poll(), self.agent.log())
        state = self.await_state(phase="ready", pid=self.agent.process.pid)
        self.assertIn("0x8=0x77", self.registers(), state)


if __name__ == "__main__":
    unittest.main()
