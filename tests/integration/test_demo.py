"""scripts/demo, whole and interrupted: it shows what it says it does, and leaves nothing behind."""

import os
import signal
import subprocess
import tempfile
import time
import unittest

SOURCE = os.environ["TARN_SOURCE"]
BUILD = os.environ["TARN_BUILD"]


def processes_of(session):
    """The processes of a session that have not ended."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/stat", encoding="utf-8") as stream:
                name, rest = stream.read().rsplit(")", 1)
        except OSError:
            continue
        state, fields = rest.split()[0], rest.split()
        if int(fields[3]) == session and state != "Z":
            found.append(name)
    return found


class Demo(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(dir="/dev/shm")
        self.addCleanup(self.folder.cleanup)
        self.log = os.path.join(self.folder.name, "said")

    def start(self):
        environment = dict(os.environ, TARN_DEMO_DIR=self.folder.name)
        with open(self.log, "wb") as log:
            demo = subprocess.Popen(
                ["bash", os.path.join(SOURCE, "scripts", "demo"), BUILD], stdin=subprocess.DEVNULL,
                stdout=log, stderr=log, env=environment, start_new_session=True)
        self.addCleanup(self.end, demo.pid)
        return demo

    def end(self, session):
        try:
            os.killpg(session, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def said(self):
        with open(self.log, encoding="utf-8") as log:
            return log.read()

    def expect_nothing_left(self, demo):
        self.assertEqual(processes_of(demo.pid), [])
        self.assertEqual(os.listdir(self.folder.name), ["said"])

    def wait_until_said(self, words, demo):
        end = time.monotonic() + 120
        while words not in self.said():
            self.assertIsNone(demo.poll(), self.said())
            self.assertLess(time.monotonic(), end, self.said())
            time.sleep(0.01)

    def test_it_shows_each_transport_a_wish_and_a_loss_and_ends_well(self):
        places = [os.path.join(SOURCE, place) for place in ("", "examples", "scripts")]
        before = [sorted(os.listdir(place)) for place in places]
        demo = self.start()
        self.assertEqual(demo.wait(300), 0, self.said())
        self.assertEqual([sorted(os.listdir(place)) for place in places], before)
        said = self.said()
        for device in ("fpga-pci", "fpga-i2c", "fpga-sorn", "fpga-smbus"):
            self.assertIn(f"$ tarnreg -d {device} read FPGA_ID\nFPGA_ID  0x5441524e\n", said)
        self.assertIn("$ tarnsim control get leds BRIGHTNESS\n0x1f\n", said)
        self.assertIn("shadow set SCRATCH=0xcafe --wait\nSCRATCH  0x0000cafe\n\n"
                      "$ tarnsim control get fpga-i2c SCRATCH\n0xcafe\n", said)
        for failure in ("tarnreg: error: cannot read FPGA_ID: Error writing address",
                        "tarnreg: error: cannot read FPGA_ID: Nimbo failure", "and the wish stands"):
            self.assertIn(failure, said)
        self.assertEqual(said.count("(exit code 5)"), 2)
        self.assertEqual(said.count("(exit code 6)"), 1)
        self.assertRegex(said, r"fpga-sorn  (waiting|probing)  generation 1 .* losses 1 ")
        self.assertIn("$ tarnsim control get fpga-i2c SCRATCH\n0xbeef\n", said)
        self.assertIn("fpga-sorn  ready  generation 2", said)
        self.assertTrue(said.endswith("Done. Nothing is left of it.\n"), said)
        self.expect_nothing_left(demo)

    def test_an_interrupt_from_the_terminal_leaves_nothing(self):
        demo = self.start()
        self.wait_until_said("$ tarnreg devices", demo)
        os.killpg(demo.pid, signal.SIGINT)
        self.assertEqual(demo.wait(120), 130, self.said())
        self.expect_nothing_left(demo)

    def test_a_signal_to_the_script_alone_leaves_nothing(self):
        demo = self.start()
        self.wait_until_said("$ tarnreg -d fpga-smbus read", demo)
        demo.terminate()
        self.assertEqual(demo.wait(120), 143, self.said())
        self.expect_nothing_left(demo)

    def test_an_interrupt_before_the_board_is_there_leaves_nothing(self):
        demo = self.start()
        self.wait_until_said("$ tarnreg check", demo)
        os.killpg(demo.pid, signal.SIGINT)
        self.assertEqual(demo.wait(120), 130, self.said())
        self.expect_nothing_left(demo)


if __name__ == "__main__":
    unittest.main()
