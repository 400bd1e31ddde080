"""I2C with the kernel's own model of chips, i2c-stub: which transfers the transports ask the kernel
for, and what becomes of the errors that it answers. i2cget and i2cset look from the other side.

A chip of the stub is 256 words. An I2C block fills the low bytes of as many words in a row, so that
a block shows byte for byte; the pointer of 16 bits that real devices have is not there.
"""

import fcntl
import os
import subprocess

from support import (DEVICE_ERROR, HEADER, TARNREG, Case, Daemon, Driver, bus, load_stub, run,
                     wait_for)

CHIP, SECOND, TAKEN, ABSENT = 0x50, 0x51, 0x52, 0x60


def setUpModule():
    load_stub()


class StubCase(Case):
    def setUp(self):
        super().setUp()
        self.bus = bus("SMBus stub driver")
        self.node = f"/dev/i2c-{self.bus}"
        self.words = self.write("words.csv", HEADER + "0,FIRST,control,true,16\n"
                                "18,SOME,control,true,16\n255,LAST,control,true,16\n"
                                "256,BEYOND,control,true,16\n")
        # What is before the last two hexadecimal digits is where the stub has a block.
        self.blocks = self.write("blocks.csv", HEADER + f"{0x1234},WIDE,control,true,32\n"
                                 f"{0x1234},HALF,control,true,16\n{0x2000},OTHER,control,true,32\n"
                                 f"{0xFC01},LAST,control,true,32\n{0xFD01},CUT,control,true,32\n"
                                 f"{0xFF01},EDGE,control,true,32\n")

    def url(self, chip=CHIP, flavour=1):
        return f"i2c:{self.node}@{chip:#x}?flavour={flavour}"

    def sorn(self, chip=CHIP):
        return f"sorn:{self.node}@{chip:#x}"

    def get(self, register, mode="b", chip=CHIP):
        return int(self.succeed("i2cget", "-y", self.bus, chip, register, mode), 16)

    def set(self, register, value, mode="b", chip=CHIP):
        self.succeed("i2cset", "-y", self.bus, chip, register, value, mode)

    def bytes(self, first, count):
        return [self.get(first + i) for i in range(count)]


class Words(StubCase):
    """Flavour 2."""

    def test_what_is_written_is_there_for_others_and_nowhere_else(self):
        before = self.get(17, "w"), self.get(19, "w")
        self.tarnreg(self.words, self.url(flavour=2), "write", "FIRST=0x1122", "SOME=0xa55a",
                     "LAST=0x8001")
        self.assertEqual([0x1122, 0xA55A, 0x8001], [self.get(at, "w") for at in (0, 18, 255)])
        self.assertEqual(before, (self.get(17, "w"), self.get(19, "w")))

    def test_what_others_wrote_is_read(self):
        for register, value in ((0, 0xFFFF), (18, 0x0102), (255, 0)):
            self.set(register, value, "w")
        self.assertEqual({"FIRST": 0xFFFF, "SOME": 0x0102, "LAST": 0},
                         self.values(self.words, self.url(flavour=2), "FIRST", "SOME", "LAST"))

    def test_chips_of_a_bus_are_kept_apart(self):
        self.set(18, 0x5151, "w", SECOND)
        self.tarnreg(self.words, self.url(flavour=2), "write", "SOME=0x5050")
        self.assertEqual(0x5151, self.get(18, "w", SECOND))
        self.assertEqual({"SOME": 0x5151},
                         self.values(self.words, self.url(SECOND, 2), "SOME"))

    def test_an_address_of_more_than_a_byte_is_refused_and_changes_nothing(self):
        self.set(0, 0x7777, "w")
        said = self.tarnreg_fails(self.words, self.url(flavour=2), "write", "BEYOND=1")
        self.assertIn("Invalid register address value 0x100", said)
        self.assertEqual(0x7777, self.get(0, "w"))


class Blocks(StubCase):
    """Flavour 1."""

    def test_a_write_is_the_addresss_low_byte_and_four_bytes_most_significant_first(self):
        for at in range(0x11, 0x18):
            self.set(at, 0xEE)
        self.tarnreg(self.blocks, self.url(), "write", "WIDE=0xaabbccdd")
        self.assertEqual([0xEE, 0x34, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE], self.bytes(0x11, 7))

    def test_a_read_sets_the_pointer_and_takes_four_bytes(self):
        for at, value in enumerate((0, 0x11, 0x22, 0x33, 0x44)):
            self.set(0x12 + at, value)
        # The stub has no pointer, so what was sent to set it comes back as the first byte.
        self.assertEqual({"WIDE": 0x34112233}, self.values(self.blocks, self.url(), "WIDE"))
        self.assertEqual([0x34, 0x11, 0x22, 0x33, 0x44], self.bytes(0x12, 5))

    def test_a_narrow_register_is_what_comes_first(self):
        self.set(0x13, 0x56)
        out = self.tarnreg(self.blocks, self.url(), "read", "HALF")
        self.assertEqual("HALF  0x34560000\n", out)

    def test_a_read_that_the_kernel_shortens_is_an_error_and_no_value(self):
        self.values(self.blocks, self.url(), "LAST")
        for name in ("CUT", "EDGE"):
            said = self.tarnreg_fails(self.blocks, self.url(), "read", name)
            self.assertRegex(said, rf"cannot read {name}: Error reading from address 0x\w+ on FD "
                                   r"\d+: Input/output error")

    def test_a_bus_that_somebody_has_locked_is_waited_for_and_words_are_not_held_up(self):
        self.set(18, 0x1818, "w")
        fd = os.open(self.node, os.O_RDWR)
        try:
            fcntl.flock(fd, fcntl.LOCK_EX)
            with subprocess.Popen([TARNREG, "--file", self.blocks, "--transport", self.url(),
                                   "write", "OTHER=0x12345678"], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, text=True) as waiting:
                wait_for(lambda: self.waits_for_lock(waiting.pid), "the command to wait")
                self.set(0x20, 0xEE)
                self.assertEqual({"SOME": 0x1818},
                                 self.values(self.words, self.url(flavour=2), "SOME"))
                self.assertEqual((None, 0xEE), (waiting.poll(), self.get(0x20)))
                fcntl.flock(fd, fcntl.LOCK_UN)
                self.assertEqual(("OTHER  0x12345678\n", None), waiting.communicate(timeout=300))
                self.assertEqual(0, waiting.returncode)
        finally:
            os.close(fd)
        self.assertEqual([0x00, 0x12, 0x34, 0x56, 0x78], self.bytes(0x20, 5))

    @staticmethod
    def waits_for_lock(process):
        with open("/proc/locks", encoding="ascii") as file:
            return any("-> FLOCK" in line and f" {process} " in line for line in file)


class AccessManager(StubCase):
    """Flavour 1 without waiting."""

    def test_writes_and_reads_are_those_of_the_transport_that_waits(self):
        self.tarnreg(self.blocks, self.sorn(), "write", "OTHER=0x01020304")
        self.assertEqual([0x00, 1, 2, 3, 4], self.bytes(0x20, 5))
        self.assertEqual({"OTHER": 0x00010203}, self.values(self.blocks, self.sorn(), "OTHER"))

    def test_a_read_that_the_kernel_shortens_is_an_error_and_no_value(self):
        said = self.tarnreg_fails(self.blocks, self.sorn(), "read", "CUT")
        self.assertIn("Input/output error", said)


class Failures(StubCase):
    """What the kernel answers, and how it is told."""

    def test_a_chip_that_is_not_there(self):
        missing = r"No such device( or address)?$"
        for where, registers, name in (
                (self.url(ABSENT, 2), self.words, "SOME"), (self.url(ABSENT), self.blocks, "WIDE"),
                (self.sorn(ABSENT), self.blocks, "WIDE")):
            said = self.tarnreg_fails(registers, where, "read", name)
            self.assertRegex(said, rf"^tarnreg: error: cannot read {name}: .*{missing}")
            said = self.tarnreg_fails(registers, where, "write", f"{name}=1")
            self.assertRegex(said, rf"^tarnreg: error: cannot write {name}: .*{missing}")

    def test_one_failing_register_hides_no_other(self):
        self.set(0x13, 0)
        done = run(TARNREG, "--file", self.blocks, "--transport", self.url(), "read", "CUT", "WIDE")
        self.assertEqual(DEVICE_ERROR, done.code, done)
        self.assertRegex(done.out, r"^WIDE  0x3400\w{4}\n$")

    def test_a_bus_that_is_not_there(self):
        said = self.tarnreg_fails(self.blocks, "i2c:/dev/i2c-77@0x50", "read", "WIDE")
        self.assertIn("Error opening I2C device '/dev/i2c-77': No such file or directory", said)

    def test_a_file_that_is_no_bus(self):
        said = self.tarnreg_fails(self.blocks, "i2c:/dev/zero@0x50", "read", "WIDE")
        self.assertIn("Inappropriate ioctl for device", said)

    def test_a_chip_that_a_driver_of_the_kernel_has(self):
        busy = "Device or resource busy"
        self.set(18, 0x4242, "w", TAKEN)
        with Driver(self.bus, "lm75", TAKEN):
            self.assertIn(busy, run("i2cget", "-y", self.bus, TAKEN, 0).err)
            for url in (self.url(TAKEN, 2), self.url(TAKEN)):
                said = self.tarnreg_fails(self.blocks, url, "write", "WIDE=1")
                self.assertIn(f"Error setting peripheral address to 0x52: {busy}", said)
            self.assertIn(busy, self.tarnreg_fails(self.blocks, self.sorn(TAKEN), "read", "WIDE"))
            with Daemon(self, 3, self.node) as daemon:
                said = self.tarnreg_fails(self.blocks, daemon.url(TAKEN), "read", "WIDE")
                self.assertRegex(said, rf"request 1 of 2 \(write of 1 bytes?, bus 3 .*{busy}")
                # It has nothing to do with the other chips.
                self.tarnreg(self.blocks, daemon.url(CHIP), "write", "WIDE=1")
        # The driver wrote nothing there, and neither did they.
        self.assertEqual(0x4242, self.get(18, "w", TAKEN))
        self.assertEqual({"SOME": 0x4242}, self.values(self.words, self.url(TAKEN, 2), "SOME"))
