"""tarnreg through the access manager, over device nodes: values, failures, time-outs, and other
programs at the same device meanwhile."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

TARNSIM = os.environ["TARNSIM"]
TARNREG = os.environ["TARNREG"]
TIMEOUT = 300

COUNT = 400
LIST = "number,name,type,writeable,width\n" + "".join(
    f"{4 * i},R{i},status,true,{16 if i == 7 else 32}\n" for i in range(COUNT))
BOARD = """
[devices.main]
list = "list.csv"
transport = "sorn:/dev/i2c-3@0x50?timeout=60000"

[simulate.i2c.main]
bus = "/dev/i2c-3"
address = 0x50
kind = "block"
values = {{ {values} }}

[simulate.i2c.bad]
bus = "/dev/i2c-3"
address = 0x51
kind = "block"
faults = [{{ kind = "eio", direction = "read", first = 2, count = 1 }},
          {{ kind = "short", direction = "read", first = 3, count = 1, length = 2 }},
          {{ kind = "timeout", direction = "read", first = 4, count = 1 }}]

[simulate.i2c.hung]
bus = "/dev/i2c-4"
address = 0x50
kind = "block"
delay_us = 600_000_000
"""


def value(i):
    return 0x01010101 * (i % 200) + i


class Sorn(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="sorn-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.list = self.write("list.csv", LIST)
        self.board = self.write("board.toml", BOARD.format(
            values=", ".join(f"{4 * i:#x} = {value(i):#x}" for i in range(COUNT))))

    def write(self, name, content):
        path = os.path.join(self.dir, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)
        return path

    def run_simulated(self, *command):
        env = {name: content for name, content in os.environ.items()
               if name not in ("TARN_TRACE", "TARN_BOARD")}
        # A leak check at a process's end would wait for its thread that the bus holds up.
        env["ASAN_OPTIONS"] = env.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
        done = subprocess.run([TARNSIM, "--board", self.board, "--", *command], env=env, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=TIMEOUT)
        return done.returncode, done.stdout, done.stderr

    def tarnreg(self, transport, *arguments):
        return self.run_simulated(TARNREG, "-f", self.list, "-t", transport, *arguments)

    def test_a_dump_has_every_register_in_its_place(self):
        code, out, err = self.run_simulated(TARNREG, "-b", self.board, "-d", "main", "dump")
        self.assertEqual((0, ""), (code, err))
        self.assertEqual([(f"R{i}", value(i)) for i in range(COUNT)],
                         [(name, int(number, 16))
                          for name, number in map(str.split, out.splitlines())])

    def test_what_is_written_is_read_back(self):
        self.assertEqual((0, "R1  0xcafe0001\nR7  0xbeef\n", ""),
                         self.tarnreg("sorn:/dev/i2c-3@0x50", "write", "--verify", "R1=0xcafe0001",
                                      "R7=0xbeef"))

    def test_each_failure_is_told_and_the_others_are_read(self):
        code, out, err = self.tarnreg("sorn:/dev/i2c-3@0x51", "read", "R[1:1]", "R1", "R2", "R3",
                                      "R4", "R5")
        self.assertEqual(3, code, "an unknown name comes first")
        self.assertEqual("R1  0x00000000\nR5  0x00000000\n", out)
        self.assertEqual(["tarnreg: error: cannot read R2: /dev/i2c-3: busError: Input/output error",
                          "tarnreg: error: cannot read R3: /dev/i2c-3: busError: Input/output error",
                          "tarnreg: error: cannot read R4: /dev/i2c-3: timedOut: Connection timed out"],
                         err.splitlines()[1:])

    def test_nobody_there_and_no_bus(self):
        self.assertEqual(
            (5, "", "tarnreg: error: cannot read R1: /dev/i2c-3: noDevice: No such device or address\n"),
            self.tarnreg("sorn:/dev/i2c-3@0x52", "read", "R1"))
        self.assertEqual(
            (5, "", "tarnreg: error: cannot read R1: /dev/i2c-9: failed: No such file or directory\n"),
            self.tarnreg("sorn:/dev/i2c-9@0x52", "read", "R1"))

    def test_a_hung_bus_ends_at_the_time_out(self):
        self.assertEqual(
            (6, "", "tarnreg: error: cannot read R1: /dev/i2c-4: timedOut: Connection timed out\n"),
            self.tarnreg("sorn:/dev/i2c-4@0x50", "read", "R1", "--timeout", "0.05"))
        self.assertEqual(
            (6, "", "tarnreg: error: cannot write R1: /dev/i2c-4: timedOut: Connection timed out\n"),
            self.tarnreg("sorn:/dev/i2c-4@0x50?timeout=50", "write", "R1=1"))

    def test_an_interrupt_ends_it_while_the_bus_hangs(self):
        # The worker is there once a second thread is.
        script = self.write("interrupt.py", """
import os, signal, subprocess, sys, time
process = subprocess.Popen(sys.argv[1:])
while len(os.listdir(f"/proc/{process.pid}/task")) < 2:
    time.sleep(0.001)
process.send_signal(signal.SIGINT)
sys.exit(0 if process.wait() == -signal.SIGINT else 1)
""")
        self.assertEqual((0, "", ""),
                         self.run_simulated(sys.executable, script, TARNREG, "-f", self.list, "-t",
                                            "sorn:/dev/i2c-4@0x50", "dump"))

    def test_other_programs_at_the_same_device_do_not_disturb(self):
        # A read is two transfers, and another's between them would give its register.
        each = f"{TARNREG} -f {self.list} -t %s:/dev/i2c-3@0x50 dump >{self.dir}/%s || exit 1"
        script = "\n".join(["set -e"] + [
            f"({each % (scheme, name)}) & {name}=$!"
            for scheme, name in (("sorn", "a"), ("i2c", "b"), ("sorn", "c"))
        ] + ["wait $a; wait $b; wait $c"])
        self.assertEqual((0, "", ""), self.run_simulated("sh", "-c", script))
        for name in "abc":
            with open(os.path.join(self.dir, name), encoding="utf-8") as file:
                values = [int(line.split()[1], 16) for line in file]
            # The synchronous transport leaves out the bits that a narrow register does not have.
            wanted = [value(i) & (0xffff0000 if name == "b" and i == 7 else 0xffffffff)
                      for i in range(COUNT)]
            self.assertEqual(wanted, values, name)


if __name__ == "__main__":
    unittest.main()
