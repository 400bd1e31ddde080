"""I2C buses that go and come back: the kernel's driver leaves QEMU's SMBus controller, and takes it
again. The driver takes the node away and then waits until nobody has it open; a program that keeps it
stops it, and with it whatever could come in its place.
"""

import glob
import os
import signal
import subprocess

from support import (HEADER, TARNREG, TIMEOUT, Background, Case, Daemon, bus, load, put, run,
                     wait_for)

CHIP = 0x50
DRIVER = "/sys/bus/pci/drivers/i801_smbus"


def setUpModule():
    load("i2c-dev")
    load("i2c-i801")


class BusCase(Case):
    def setUp(self):
        super().setUp()
        self.function = os.path.basename(glob.glob(f"{DRIVER}/0000:*")[0])
        self.node = f"/dev/i2c-{bus('SMBus I801')}"
        self.list = self.write("list.csv", HEADER + f"{0x8034},PART,control,true,24\n"
                               f"{0x8034},WIDE,control,true,32\n64,SOME,control,true,16\n")

    def goes(self):
        """The driver has begun to leave; the process that ends when it has left."""
        leaving = subprocess.Popen(["sh", "-c", f"echo {self.function} > {DRIVER}/unbind"])
        wait_for(lambda: not os.path.exists(self.node), "the node to go")
        return leaving

    def comes(self):
        put(f"{DRIVER}/bind", self.function)
        wait_for(lambda: os.path.exists(self.node), "the node to come")


class Nimbod(BusCase):
    def test_a_bus_that_went_fails_and_lets_its_driver_go_and_is_served_when_it_is_back(self):
        with Daemon(self, 3, self.node) as daemon:
            self.tarnreg(self.list, daemon.url(CHIP), "write", "WIDE=0x1000000")
            leaving = self.goes()
            said = self.tarnreg_fails(self.list, daemon.url(CHIP), "write", "WIDE=0x2000000")
            self.assertIn(f"cannot open {self.node}: No such file or directory", said)
            self.assertEqual(0, leaving.wait(TIMEOUT))
            self.comes()
            self.tarnreg(self.list, daemon.url(CHIP), "write", "WIDE=0x3000000")
        out = self.succeed("i2cget", "-y", self.node.removeprefix("/dev/i2c-"), CHIP, 0x81, "b")
        self.assertEqual("0x03\n", out)

    def test_a_bus_may_come_after_the_daemon(self):
        self.assertEqual(0, self.goes().wait(TIMEOUT))
        with Daemon(self, 3, self.node) as daemon:
            said = self.tarnreg_fails(self.list, daemon.url(CHIP), "read", "WIDE")
            self.assertIn("No such file or directory", said)
            self.comes()
            self.tarnreg(self.list, daemon.url(CHIP), "write", "WIDE=0x4000000")


class AccessManager(BusCase):
    def test_a_bus_that_went_fails_and_lets_its_driver_go_and_is_used_when_it_is_back(self):
        watch = Background(self, TARNREG, "--file", self.list, "--transport",
                           f"sorn:{self.node}@{CHIP:#x}", "watch", "PART", "--interval", "0.1")
        watch.wait_until(lambda: watch.says("PART  "), "the first value")
        leaving = self.goes()
        watch.wait_until(lambda: watch.says("No such file or directory"), "the failure")
        self.assertEqual(0, leaving.wait(TIMEOUT))
        self.comes()
        number = self.node.removeprefix("/dev/i2c-")

        def changed():
            # Another byte behind the pointer, until it has been noticed.
            changed.value = changed.value % 0xFF + 1
            self.succeed("i2cset", "-y", number, CHIP, 0x81, changed.value, "b")
            return watch.said().count("PART  ") > 1

        changed.value = 0
        watch.wait_until(changed, "a value that has changed")
        watch.process.send_signal(signal.SIGINT)
        self.assertEqual(-signal.SIGINT, watch.process.wait(TIMEOUT))


class Waiting(BusCase):
    """The transport that opens its device once, and keeps it."""

    def test_its_bus_cannot_go_before_it_and_works_until_then(self):
        run("i2cset", "-y", self.node.removeprefix("/dev/i2c-"), CHIP, 64, 0x11, "b")
        watch = Background(self, TARNREG, "--file", self.list, "--transport",
                           f"i2c:{self.node}@{CHIP:#x}?flavour=2", "watch", "SOME", "--interval",
                           "0.1", "--count", "100000")
        watch.wait_until(lambda: watch.says("SOME  "), "the first value")
        leaving = self.goes()
        self.assertIsNone(leaving.poll())
        self.assertFalse(watch.says("cannot read"))
        watch.process.send_signal(signal.SIGINT)
        self.assertEqual(-signal.SIGINT, watch.process.wait(TIMEOUT))
        self.assertEqual(0, leaving.wait(TIMEOUT))
        self.comes()
        self.tarnreg(self.list, f"i2c:{self.node}@{CHIP:#x}?flavour=2", "read", "SOME")
