"""I2C with devices that are none of ours: the small EEPROMs of QEMU's board, 256 bytes each, behind
its SMBus controller and the kernel's driver for that one.

Of a block that is read QEMU gives all bytes but the last, which is 0; so blocks are compared without
it, and single bytes as they are. A block to an address that nobody answers to hangs QEMU's controller
until the next start; so what becomes of that is left to the words here, and to the stub's chips.
"""

import os
import sys

from support import HEADER, Case, Daemon, bus, load, run

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "integration",
                             "nimbod"))
import wire  # noqa: E402

CHIP, OTHER, ABSENT = 0x50, 0x57, 0x60


def setUpModule():
    load("i2c-dev")
    load("i2c-i801")


class EepromCase(Case):
    def setUp(self):
        super().setUp()
        self.bus = bus("SMBus I801")
        self.node = f"/dev/i2c-{self.bus}"
        self.list = self.write("list.csv", HEADER + "0,FIRST,control,true,16\n"
                               f"64,SOME,control,true,16\n254,LAST,control,true,16\n"
                               f"{0x8034},WIDE,control,true,32\n{0x8034},PART,control,true,24\n"
                               f"{0x9000},ZERO,control,true,32\n")

    def url(self, chip=CHIP, flavour=1):
        return f"i2c:{self.node}@{chip:#x}?flavour={flavour}"

    def get(self, register, chip=CHIP):
        return int(self.succeed("i2cget", "-y", self.bus, chip, register, "b"), 16)

    def set(self, register, *values, chip=CHIP):
        for at, value in enumerate(values):
            self.succeed("i2cset", "-y", self.bus, chip, register + at, value, "b")

    def bytes(self, first, count, chip=CHIP):
        """Bytes as i2cdump shows them, which reads one by one."""
        shown = {}
        dump = self.succeed("i2cdump", "-y", "-r", f"{first:#x}-{first + count - 1:#x}", self.bus,
                            chip, "b")
        for line in dump.splitlines()[1:]:
            row = int(line[:2], 16)
            for column in range(16):
                text = line[4 + 3 * column:6 + 3 * column].strip()
                if text:
                    shown[row + column] = int(text, 16)
        return [shown[at] for at in range(first, first + count)]


class Words(EepromCase):
    def test_a_word_goes_out_low_byte_first(self):
        self.set(0x3F, 0xEE, 0xEE, 0xEE, 0xEE)
        self.tarnreg(self.list, self.url(flavour=2), "write", "SOME=0x1234", "LAST=0xabcd")
        self.assertEqual([0xEE, 0x34, 0x12, 0xEE], self.bytes(0x3F, 4))
        self.assertEqual([0xCD, 0xAB], self.bytes(0xFE, 2))

    def test_a_word_comes_in_low_byte_first(self):
        self.set(0x40, 0x78, 0x56)
        self.set(0x00, 0x01, 0xFF)
        self.assertEqual({"SOME": 0x5678, "FIRST": 0xFF01},
                         self.values(self.list, self.url(flavour=2), "SOME", "FIRST"))

    def test_what_is_written_is_read_back_and_other_chips_keep_theirs(self):
        self.set(0x40, 0x11, 0x22, chip=OTHER)
        self.tarnreg(self.list, self.url(flavour=2), "write", "SOME=0x8001", "--verify")
        self.assertEqual({"SOME": 0x2211}, self.values(self.list, self.url(OTHER, 2), "SOME"))


    def test_an_address_that_nobody_answers_to_is_an_error(self):
        for words in (("read", "SOME"), ("write", "SOME=1")):
            said = self.tarnreg_fails(self.list, self.url(ABSENT, 2), *words)
            self.assertRegex(said, "I2C word (read|write) from address 0x40 failed: "
                                   "No such device or address")
        self.tarnreg(self.list, self.url(flavour=2), "read", "SOME")


class Blocks(EepromCase):
    def test_a_write_is_the_registers_two_bytes_and_the_values_four(self):
        self.set(0x7F, *[0xEE] * 7)
        self.tarnreg(self.list, self.url(), "write", "WIDE=0xa1b2c3d4")
        self.assertEqual([0xEE, 0x34, 0xA1, 0xB2, 0xC3, 0xD4, 0xEE], self.bytes(0x7F, 7))

    def test_a_read_takes_what_follows_most_significant_first(self):
        self.set(0x80, 0, 0x5A, 0xA5, 0x99)
        self.assertEqual({"PART": 0x345AA500}, self.values(self.list, self.url(), "PART"))

    def test_the_access_manager_writes_and_reads_the_same(self):
        url = f"sorn:{self.node}@{CHIP:#x}"
        self.tarnreg(self.list, url, "write", "WIDE=0x01020304")
        self.assertEqual([0x34, 1, 2, 3, 4], self.bytes(0x80, 5))
        self.assertEqual(0x34010200, self.values(self.list, url, "WIDE")["WIDE"] & 0xFFFFFF00)


class Nimbod(EepromCase):
    """The daemon on a controller that only speaks SMBus."""

    def setUp(self):
        super().setUp()
        self.daemon = self.enterContext(Daemon(self, 3, self.node))

    def enterContext(self, context):
        value = context.__enter__()
        self.addCleanup(context.__exit__, None, None, None)
        return value

    def call(self, *requests):
        with wire.Client(self.daemon.socket, timeout=300) as client:
            return client.call(requests)

    def test_a_registers_write_arrives(self):
        self.set(0x7F, *[0xEE] * 7)
        self.tarnreg(self.list, self.daemon.url(CHIP), "write", "WIDE=0xa1b2c3d4")
        self.assertEqual([0xEE, 0x34, 0xA1, 0xB2, 0xC3, 0xD4, 0xEE], self.bytes(0x7F, 7))

    def test_a_registers_read_is_what_is_at_offset_0(self):
        self.set(0x00, 0xC0, 0xFF, 0xEE, 0x77)
        self.assertEqual(
            0xC0FFEE00,
            self.values(self.list, self.daemon.url(CHIP), "ZERO")["ZERO"] & 0xFFFFFF00)
        # The pointer's low byte was written where its high byte says.
        self.assertEqual([0x00], self.bytes(0x90, 1))

    def test_requests_of_a_transaction_go_to_their_devices_in_order(self):
        self.set(0x20, 0, 0, 0)
        self.set(0x20, 0, chip=OTHER)
        at = wire.address(3, CHIP, 0x20)
        response = self.call(wire.write(at, b"\x01\x02\x03"), wire.read(at, 1),
                             wire.write(at, b"\x09"), wire.read(at, 1),
                             wire.write(wire.address(3, OTHER, 0x20), b"\x55"),
                             wire.read(wire.address(3, CHIP, 0x22), 1))
        self.assertEqual((False, ""), (response.failed, response.error))
        self.assertEqual([b"\x01", b"\x09", b"\x03"], [data for data in response.data if data])
        self.assertEqual([0x09, 0x02, 0x03], self.bytes(0x20, 3))
        self.assertEqual([0x55], self.bytes(0x20, 1, OTHER))

    def test_a_device_that_is_not_there_fails_its_request_and_ends_the_transaction(self):
        self.set(0x20, 0x20)
        response = self.call(wire.read(wire.address(3, CHIP, 0x20), 1),
                             wire.read(wire.address(3, ABSENT, 0x20), 1),
                             wire.write(wire.address(3, CHIP, 0x20), b"\x99"))
        self.assertTrue(response.failed)
        self.assertRegex(response.error,
                         r"^request 2 of 3 \(read of 1 bytes?, bus 3 .*, device 0x60, offset 0x20\): "
                         r"No such device or address")
        self.assertEqual([0x20], self.bytes(0x20, 1))

    def test_what_the_controller_cannot_do_is_refused(self):
        self.set(0x00, 0x10)
        response = self.call(wire.write(wire.address(3, CHIP, 0x0001, offset_bytes=2), b"\x99"))
        self.assertTrue(response.failed)
        self.assertIn("Operation not supported", response.error)
        response = self.call(wire.read(wire.address(3, CHIP, 0), 33))
        self.assertIn("Operation not supported", response.error)
        self.assertEqual([0x10], self.bytes(0x00, 1))

    def test_a_longer_block_arrives(self):
        data = bytes(range(0xC0, 0xD8))
        response = self.call(wire.write(wire.address(3, CHIP, 0xA0), data))
        self.assertEqual((False, ""), (response.failed, response.error))
        self.assertEqual(list(data), self.bytes(0xA0, len(data)))
