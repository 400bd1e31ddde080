"""The example programs and the sample device."""

import os
import re
import subprocess
import tempfile
import unittest

from support import BOARD, EXAMPLES, SOURCE, TIMEOUT, TarnregTest, environment, run


class Examples(TarnregTest):
    def program(self, name, *arguments):
        done = subprocess.run(
            [os.path.join(EXAMPLES, name), *arguments],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment(), timeout=TIMEOUT,
            cwd=self.dir, text=True,
        )
        return done.returncode, done.stdout, done.stderr

    def test_read_and_write(self):
        code, out, err = self.program("read_and_write", BOARD)
        self.assertEqual(code, 0, err)
        self.assertEqual(
            out,
            "FAN[0]_PWM = 128\n"
            "MAILBOX[7] = 0x5a5a5a5a\n"
            "NO_SUCH_REGISTER = 0xffffffff, error flag set\n",
        )
        self.assertEqual(len(err.splitlines()), 2, err)
        self.assertIn(
            "TransportMethod error on register 'NO_SUCH_REGISTER': RegisterFile does not have "
            "register 'NO_SUCH_REGISTER'",
            err,
        )

    def test_observe_results(self):
        code, out, err = self.program("observe_results", BOARD)
        self.assertEqual(code, 0, err)
        self.assertEqual(
            out,
            "write LED_SYSTEM: Success\n"
            "read LED_SYSTEM: Success, 0x2\n"
            "switch-board: error is now set\n"
            "read NO_SUCH_REGISTER: Error, 0xffffffff\n"
            "switch-board: error is now clear\n"
            "read LED_SYSTEM: Success, 0x2\n",
        )

    def test_model_in_code(self):
        self.assertEqual(
            self.program("model_in_code"),
            (0, "0x00 CPLD_ID = 0x0\n0x04 RAIL_ENABLE = 0x3f\n0x08 RAIL_STATUS = 0x0\n", ""),
        )

    def test_mistakes_are_told(self):
        for name in ("read_and_write", "observe_results"):
            code, out, err = self.program(name)
            self.assertEqual((code, out), (2, ""))
            self.assertIn("usage: ", err)
            code, out, err = self.program(name, "/no/such")
            self.assertEqual((code, out), (1, ""))
            self.assertIn("Error opening CSV file /no/such", err)

    def test_they_leave_no_file(self):
        self.program("read_and_write", BOARD)
        self.program("observe_results", BOARD)
        self.program("model_in_code")
        self.assertEqual(os.listdir(self.dir), [])


class ShadowTable(TarnregTest):
    def setUp(self):
        super().setUp()
        self.program = os.path.join(EXAMPLES, "shadow_table")
        self.env = environment(TARN_TABLE_DIR=os.path.join(self.dir, "tables"))

    def write(self, *wishes):
        done = subprocess.run(
            [self.program, "writer", *wishes], env=self.env, text=True, timeout=TIMEOUT,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        )
        return done.returncode, done.stdout, done.stderr

    def reader(self):
        return subprocess.Popen(
            [self.program, "reader"], env=self.env, text=True, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )

    def end(self, reader):
        reader.terminate()
        out, err = reader.communicate(timeout=TIMEOUT)
        self.assertEqual((reader.returncode, out, err), (0, "", ""))

    def test_the_reader_is_told_what_writers_write(self):
        with self.reader() as reader:
            try:
                self.assertEqual(reader.stdout.readline(), "0 registers; following changes\n")
                self.assertEqual(self.write("0x10=5", "0x14=7"), (0, "", ""))
                self.assertEqual(reader.stdout.readline(), "0x10 = 0x5\n")
                self.assertEqual(reader.stdout.readline(), "0x14 = 0x7\n")
                self.assertEqual(self.write("0x14="), (0, "", ""))
                self.assertEqual(reader.stdout.readline(), "0x14 is gone\n")
                self.end(reader)
            finally:
                reader.kill()

    def test_the_reader_finds_what_was_written_before(self):
        self.assertEqual(self.write("0x10=5"), (0, "", ""))
        with self.reader() as reader:
            try:
                self.assertEqual(reader.stdout.readline(), "0x10 = 0x5\n")
                self.assertEqual(reader.stdout.readline(), "1 registers; following changes\n")
                self.end(reader)
            finally:
                reader.kill()

    def test_mistakes_are_told(self):
        for arguments in ((), ("writer",), ("reader", "0x10"), ("other",)):
            done = subprocess.run(
                [self.program, *arguments], env=self.env, text=True, timeout=TIMEOUT,
                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            )
            self.assertEqual((done.returncode, done.stdout), (2, ""))
            self.assertIn("usage: ", done.stderr)
        self.assertEqual(os.listdir(self.dir), [])
        self.assertEqual(self.write("0x10"), (1, "", "no ADDRESS=VALUE: 0x10\n"))
        self.assertEqual(
            self.write("0x10=0x100000000"), (1, "", "no number of 32 bits: 0x100000000\n")
        )

    def test_the_page_shows_what_the_program_does(self):
        with open(os.path.join(SOURCE, "docs", "shadow-tables.md"), encoding="utf-8") as page:
            blocks = re.findall(r"```cpp\n(.*?)```", page.read(), re.DOTALL)
        lines = ""
        for program in ("shadow_table.cpp", "shadow_registers.cpp", "shadow_order.cpp"):
            with open(os.path.join(SOURCE, "examples", program), encoding="utf-8") as code:
                lines += " ".join(code.read().split())
        self.assertEqual(len(blocks), 6)
        for block in blocks:
            self.assertIn(" ".join(block.split()), lines)


class ShadowClient(TarnregTest):
    def setUp(self):
        super().setUp()
        self.env = environment(TARN_TABLE_DIR=os.path.join(self.dir, "tables"))

    def client(self, *arguments):
        done = subprocess.run(
            [os.path.join(EXAMPLES, "shadow_registers"), *arguments], env=self.env, text=True,
            timeout=TIMEOUT, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        )
        return done.returncode, done.stdout, done.stderr

    def test_reads_wishes_and_follows(self):
        listed = run("--file", BOARD, "--json", "list", "FPGA_ID", "SCRATCH").document["registers"]
        numbers = {register["name"]: register["address"] // 4 for register in listed}
        owner = subprocess.Popen(
            [os.environ["SHADOW_OWNER"], "fpga", f"{numbers['FPGA_ID']}=77",
             f"{numbers['SCRATCH']}=1"],
            env=self.env, text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        )
        with owner:
            self.assertEqual(owner.stdout.readline(), "ready\n")
            code, out, err = self.client(BOARD, "fpga")
            self.assertEqual((code, err), (0, ""))
            lines = out.splitlines()
            self.assertIn("FPGA_ID 77", lines)
            self.assertIn("SCRATCH now 6", lines)
            self.assertIn("SCRATCH wished 6, held 6", lines)
            owner.stdin.close()
            self.assertEqual(owner.wait(TIMEOUT), 0)

    def test_without_an_owner_there_are_no_values(self):
        code, out, err = self.client(BOARD, "fpga")
        self.assertEqual((code, out), (1, ""))
        self.assertIn("FPGA_ID", err)
        self.assertEqual(self.client()[0], 2)


class SampleDevice(TarnregTest):
    def test_has_no_problem_of_any_kind(self):
        self.assert_run(run("check", BOARD, "--fail-on", "info"), 0, "", "")

    def test_has_its_registers(self):
        registers = run("--file", BOARD, "--json", "list").document["registers"]
        self.assertEqual(len(registers), 280)
        self.assertEqual(len({register["address"] for register in registers}), 280)
        lane = [r for r in registers if r["name"] == "LANE[3]_[2]_ERRORS"]
        self.assertEqual((lane[0]["address"], lane[0]["arraySize"]), ((512 + 14) * 4, 16))


if __name__ == "__main__":
    unittest.main()
