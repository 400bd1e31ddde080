"""tarn-shadowd loses its device while idle, while it fills the shadow, and while it writes, on every
bus: after the return a new generation has what was wished meanwhile, written once.

A device is lost and returned by what its accesses count, or by its file, never by time."""

import os
import signal
import unittest

from agent import TARNSIM, Agent, Simulated, wait_for

NIMBOD = os.environ["NIMBOD"]

I2C = """
[simulate.i2c.chip]
bus = "/dev/i2c-3"
address = 0x50
kind = "block"
values = {{ 0 = 0x1d, 4 = 0xc, 8 = 0x5 }}
{faults}

[nimbod.buses.fpga]
number = 3
device = "/dev/i2c-3"
"""

PCI = """
[simulate.pci.chip]
function = "0000:ff:00.0"
size = 4096
values = {{ 0 = 0x1d, 16 = 0xc, 32 = 0x5 }}
{faults}
"""

SPI = """
[simulate.spi.chip]
device = "/dev/spidev0.0"
{faults}

[devices.cpld]
list = "list.csv"
transport = "mock:"
"""

HEAD = """
[devices.fpga]
list = "list.csv"
transport = "{transport}"

[shadow]
cores = [{cores}]
retry_first_ms = 20
retry_most_ms = 50
check_interval_ms = {check}
"""


class Board(Simulated):
    simulated = I2C
    cores = '"fpga"'

    def command(self):
        return ()

    def start(self, check=0, faults=""):
        text = HEAD + self.simulated
        self.board = self.write("board.toml", text.format(
            transport=self.transport, check=check, faults=faults, cores=self.cores))
        self.socket = self.path("control")
        self.agent = Agent(self, wrapper=(TARNSIM, "--board", self.board, "--control", self.socket,
                                          "--", *self.command()))
        wait_for(lambda: self.agent.says("Serving") or self.agent.process.poll() is not None,
                 "the agent")
        self.assertIsNone(self.agent.process.poll(), self.agent.log())

    def wish(self, *wishes):
        for address, value in wishes:
            self.client("put", "fpga/config", address, value)

    def value(self, address):
        return int(self.sim("get", "chip", str(address * self.unit)).strip(), 0)

    unit = 1


class Idle:
    def test_while_idle(self):
        self.start(check=20)
        self.await_state(phase="ready", generation=1)
        self.wish((8, 0x70))
        self.await_registers("0x8=0x70")
        self.sim("lose", "chip")
        state = self.await_state(phase="waiting", losses=1, ready="false", valid="false")
        self.assertIn("fpga: lost the device", self.agent.log())
        self.assertEqual("1", state["generation"])
        self.wish((8, 0x71), (4, 0x44), (8, 0x72))
        self.forget()
        self.sim("return", "chip")
        self.await_state(phase="ready", generation=2, losses=1)
        self.assertEqual(["0x0=0x1d", "0x4=0x44", "0x8=0x72"], self.registers())
        self.assertEqual((0x44, 0x72), (self.value(4), self.value(8)))
        self.assert_written((4, 0x44), (8, 0x72))


class Scripted(Idle):
    """Where accesses are counted."""

    def forget(self):
        self.sim("forget", "chip")

    def assert_written(self, *wanted):
        found = []
        for line in self.journal("write"):
            address, data = line.split()[1].rstrip(":"), line.split()[2:]
            if data and data[0] != "error":  # else only the pointer was set, or not even that
                found.append((int(address, 0), int("".join(data), 16)))
        found.sort()
        self.assertEqual(sorted(wanted), found, self.sim("journal", "chip"))

    def test_while_the_shadow_is_filled(self):
        # Three reads of the probe, and one of the sync.
        self.start(faults='faults = [{ kind = "nak", direction = "read", first = 5 }]')
        wait_for(lambda: self.agent.says("fpga: cannot use the device"), "the loss")
        state = self.await_state(phase="waiting", ready="false", valid="false", losses=0)
        self.assertEqual("1", state["generation"])
        self.wish((8, 0x71), (4, 0x44), (8, 0x72))
        self.forget()
        self.sim("clear", "chip")
        self.await_state(phase="ready", generation=2, losses=0)
        self.assertEqual(["0x0=0x1d", "0x4=0x44", "0x8=0x72"], self.registers())
        self.assert_written((4, 0x44), (8, 0x72))

    def test_while_it_writes(self):
        self.start()
        self.await_state(phase="ready", generation=1)
        self.sim("fault", "chip", "nak", "direction=write", "first=2")
        self.sim("fault", "chip", "nak", "direction=read")
        self.forget()
        self.client("order", "fpga", 9, 3, "4=1", "8=2", "4=3")
        state = self.await_state(phase="waiting", losses=1, ready="false", valid="false")
        self.assertEqual("1", state["generation"])
        self.assertEqual([], self.ordered("fpga/ops"))
        self.assertEqual(["9/3 0x4=0x1"], self.ordered())
        self.assertEqual((1, 5), (self.value(4), self.value(8)))
        self.wish((8, 0x71), (8, 0x72))
        self.forget()
        self.sim("clear", "chip")
        self.await_state(phase="ready", generation=2)
        self.assertEqual(["0x0=0x1d", "0x4=0x1", "0x8=0x72"], self.registers())
        self.assert_written((8, 0x72))

    def test_while_it_writes_a_wish(self):
        self.start()
        self.await_state(phase="ready", generation=1)
        self.sim("fault", "chip", "nak")
        self.wish((8, 0x71))
        self.await_state(phase="waiting", losses=1)
        self.wish((8, 0x72))
        self.forget()
        self.sim("clear", "chip")
        self.await_state(phase="ready", generation=2)
        self.assertIn("0x8=0x72", self.registers())
        self.assert_written((8, 0x72))


class OverI2c(Scripted, Board):
    transport = "i2c:/dev/i2c-3@0x50"


class OverTheAccessManager(Scripted, Board):
    transport = "sorn:/dev/i2c-3@0x50?timeout=2000"


class OverNimbod(Scripted, Board):
    transport = "smbus:3@0x50?socket=socket/smbus"

    def command(self):
        os.mkdir(self.path("socket"))
        pid = self.path("nimbod.pid")
        self.addCleanup(self.end, pid)
        return ("/bin/sh", "-c",
                '"$1" --config "$2" --socket-dir "$3" >/dev/null 2>&1 & echo $! >"$4"; shift 4; '
                'exec "$@"', "sh", NIMBOD, self.board, self.path("socket"), pid)

    def end(self, path):
        with open(path, encoding="utf-8") as file:
            try:
                os.kill(int(file.read()), signal.SIGKILL)
            except ProcessLookupError:
                pass  # it went with the simulation


class OverPci(Idle, Board):
    """Its accesses go past the simulation, which cuts its file off: a real SIGBUS."""

    transport = "pci:0000:ff:00.0/resource0"
    simulated = PCI
    unit = 4

    def forget(self):
        pass

    def assert_written(self, *wanted):
        pass

    def test_while_it_answers_all_ones(self):
        self.start(check=20)
        self.await_state(phase="ready", generation=1)
        for offset in (0, 16, 32):
            self.sim("set", "chip", str(offset), "0xffffffff")
        self.await_state(phase="waiting", losses=1)
        self.wish((8, 0x71))
        self.sim("set", "chip", "32", "5")
        self.await_state(phase="ready", generation=2, losses=1)
        self.assertEqual(0x71, self.value(8))


class OverSpi(Board):
    transport = "spi:/dev/spidev0.0"
    simulated = SPI
    cores = '"fpga", "cpld"'

    def test_what_cannot_be_read_is_no_core_and_no_trouble_for_others(self):
        self.start()
        self.await_state(phase="waiting", generation=0)
        self.await_state(core="cpld", phase="ready", generation=1)
        self.assertIn("fpga: cannot use the device: register 'ID'", self.agent.log())


if __name__ == "__main__":
    unittest.main()
