"""tarnreg table: what the command shows of shared tables that other processes write."""

import json
import os
import shutil
import signal
import subprocess
import tempfile
import unittest

from support import TARNREG, TIMEOUT, environment, run

WRITER = os.environ["TABLE_WRITER"]


class Tables(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="tarn-test-", dir="/dev/shm")
        self.addCleanup(shutil.rmtree, self.dir)
        self.writers = []

    def tearDown(self):
        for writer in self.writers:
            writer.kill()
            writer.wait(TIMEOUT)
            writer.stdin.close()
            writer.stdout.close()

    def writer(self, name):
        """A process that has a table of registers mounted and does what it is told."""
        process = subprocess.Popen(
            [WRITER, name], env=environment(TARN_TABLE_DIR=self.dir), text=True, bufsize=1,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )
        self.writers.append(process)
        self.assertEqual(process.stdout.readline(), "mounted\n")
        return process

    def tell(self, process, command):
        process.stdin.write(command + "\n")
        process.stdin.flush()
        self.assertEqual(process.stdout.readline(), "done\n")

    def table(self, *arguments):
        done = run("table", *arguments, env={"TARN_TABLE_DIR": self.dir})
        return done.code, done.out, done.err

    def test_nothing_there_is_nothing_wrong(self):
        note = f"tarnreg: note: there are no shared tables in {self.dir}\n"
        self.assertEqual(self.table("list"), (0, "", note))
        self.assertEqual(self.table("audit"), (0, "", note))
        self.assertEqual(self.table("list", "--dir", self.dir + "/none"),
                         (0, "", f"tarnreg: note: there are no shared tables in {self.dir}/none\n"))

    def test_lists_and_describes_what_processes_have_mounted(self):
        process = self.writer("fan-cpld/config")
        self.tell(process, "put 16 5")
        self.assertEqual(
            self.table("list"),
            (0, "fan-cpld/config  1 record of TarnRegFile::Sable::CoreRegister  "
                "1 writer, 0 readers\n", ""),
        )
        code, out, err = self.table("describe", "fan-cpld/config")
        self.assertEqual((code, err), (0, ""))
        self.assertIn("keys             TarnRegFile::Sable::CoreRegisterKey, 4 bytes\n", out)
        self.assertIn("records          1 of at most 1048576: TarnRegFile::Sable::CoreRegister, "
                      "up to 8 bytes\n", out)
        self.assertIn(f"mounted          writer  pid {process.pid}  table_writer\n", out)
        code, out, _ = self.table("list", "--json")
        self.assertEqual(code, 0)
        self.assertEqual(json.loads(out)["tables"], [{
            "name": "fan-cpld/config", "records": 1,
            "keyType": "TarnRegFile::Sable::CoreRegisterKey",
            "recordType": "TarnRegFile::Sable::CoreRegister",
            "mounts": [{"role": "writer", "pid": process.pid, "program": "table_writer",
                        "quiesced": False}],
        }])

    def test_a_killed_writer_is_no_longer_listed(self):
        process = self.writer("t")
        process.send_signal(signal.SIGKILL)
        process.wait(TIMEOUT)
        code, out, err = self.table("list")
        self.assertEqual((code, err), (0, ""))
        self.assertIn("0 writers, 0 readers", out)

    def test_dumps_registers_by_address(self):
        process = self.writer("t")
        for line in ("put 256 7", "put 4 1", "put 255 4294967295"):
            self.tell(process, line)
        self.assertEqual(
            self.table("dump", "t"), (0, "0x4    0x1\n0xff   0xffffffff\n0x100  0x7\n", "")
        )
        code, out, _ = self.table("dump", "t", "--json")
        self.assertEqual(code, 0)
        self.assertEqual(json.loads(out)["records"], [
            {"address": 4, "value": 1}, {"address": 255, "value": 4294967295},
            {"address": 256, "value": 7}])

    def test_watches_until_it_has_seen_enough(self):
        process = self.writer("t")
        self.tell(process, "put 4 1")
        watching = subprocess.Popen(
            [TARNREG, "table", "watch", "t", "--count", "3"], stdout=subprocess.PIPE, text=True,
            env=environment(TARN_TABLE_DIR=self.dir),
        )
        self.addCleanup(watching.stdout.close)
        # It is among the mounts when it is ready to see changes.
        while "1 reader" not in self.table("list")[1]:
            self.assertIsNone(watching.poll())
        self.tell(process, "put 4 2")
        self.assertEqual(watching.stdout.readline(), "0x4  0x2\n")
        self.tell(process, "put 8 9")
        self.tell(process, "del 4")
        out, _ = watching.communicate(timeout=TIMEOUT)
        self.assertEqual(out, "0x8  0x9\n0x4  removed\n")
        self.assertEqual(watching.returncode, 0)

    def test_a_document_needs_an_end(self):
        self.writer("t")
        code, out, _ = self.table("watch", "t", "--json")
        self.assertEqual(code, 2)
        code, out, _ = self.table("watch", "t", "--json", "--timeout", "0.1")
        self.assertEqual((code, json.loads(out).get("changes", [])), (0, []))

    def test_a_watch_ends_when_its_time_is_over(self):
        self.writer("t")
        self.assertEqual(self.table("watch", "t", "--timeout", "0.1"), (0, "", ""))
        code, out, err = self.table("watch", "t", "--count", "2", "--timeout", "0.1")
        self.assertEqual((code, out), (6, ""))
        self.assertEqual(err, "tarnreg: error: 0 of 2 changes came in time\n")

    def test_an_unknown_table_is_told_with_its_own_exit_code(self):
        for verb in ("describe", "dump", "watch", "audit", "remove"):
            code, out, err = self.table(verb, "none")
            self.assertEqual((code, out, err),
                             (3, "", "tarnreg: error: there is no shared table 'none'\n"), verb)

    def test_damage_is_found_and_told_and_hides_no_other_table(self):
        self.tell(self.writer("whole"), "put 4 1")
        process = self.writer("damaged")
        self.tell(process, "put 4 1")
        with open(os.path.join(self.dir, "damaged.tbl"), "r+b") as file:
            content = file.read(1 << 20)
            file.seek(4096 + 72)
            self.assertNotEqual(content[4096 + 72:4096 + 80], bytes(8))
            file.write(b"\x01" * 8)
        code, out, err = self.table("audit")
        self.assertEqual(code, 1)
        self.assertIn("whole  1 records, no damage\n", out)
        self.assertIn("damaged: a counter of the table fails its check", err)
        code, out, err = self.table("list")
        self.assertEqual(code, 1)
        self.assertIn("whole    1 record of", out)
        self.assertIn("shared table 'damaged' is corrupted", err)
        with open(os.path.join(self.dir, "foreign.tbl"), "wb") as file:
            file.write(b"something else")
        code, out, err = self.table("dump", "foreign")
        self.assertEqual((code, out), (1, ""))
        self.assertIn("shared table 'foreign' cannot be used", err)

    def test_removes_what_nobody_has_mounted(self):
        process = self.writer("t")
        code, out, err = self.table("remove", "t")
        self.assertEqual((code, out, err),
                         (4, "", "tarnreg: error: the shared table 't' is mounted: Device or resource "
                          "busy\n"))
        process.kill()
        process.wait(TIMEOUT)
        self.assertEqual(self.table("remove", "t"), (0, "removed t\n", ""))
        self.assertEqual(self.table("list")[:2], (0, ""))
        self.writer("t")
        self.assertEqual(self.table("remove", "t", "--force"), (0, "removed t\n", ""))

    def test_needs_a_verb(self):
        code, out, err = self.table()
        self.assertEqual((code, out), (2, ""))
        self.assertIn("tarnreg: error: ", err)


if __name__ == "__main__":
    unittest.main()
