"""PCI devices that go: the kernel takes mappings away, or the device behind them is gone. All of it
is the kernel's and QEMU's doing; that the signal is a real one is shown by a process without the
library, which dies of it.
"""

import os
import signal
import subprocess
import sys

import host
from case_pci import EDU, IDENTIFICATION, SHARED
from support import (HEADER, TARNREG, TIMEOUT, Agent, Background, Case, Client, Function, load, put,
                     wait_for)

CARD = (0x8086, 0x100E)
# The first four bytes of the address that the card was given, as its register has them.
CARD_ADDRESS = 0x12005452
DRIVER = "/sys/bus/pci/drivers/e1000"
BUS_ERROR = "Got SIGBUS when performing operation on register"

# Maps a file and touches a word of it each time that it is told, without any library's help.
PLAIN = """
import ctypes, mmap, os, sys
fd = os.open(sys.argv[1], os.O_RDWR)
memory = mmap.mmap(fd, 0)
word = ctypes.c_uint32.from_buffer(memory, 0x8)
for line in sys.stdin:
    if line == "write\\n":
        word.value = 0
    print(word.value if line == "read\\n" else "done", flush=True)
"""


def setUpModule():
    load("e1000")
    # Loading has bound the driver; the cases begin without it.
    card = Card()
    wait_for(card.is_bound, "the driver")
    card.leave()


class Card:
    """The network card, whose driver claims the BAR or leaves it."""

    def __init__(self):
        self.function = Function(*CARD, enable=False)
        self.name = self.function.name

    def is_bound(self):
        return os.path.exists(f"{self.function.folder}/driver")

    def claim(self):
        put(f"{DRIVER}/bind", self.name)

    def leave(self):
        if self.is_bound():
            put(f"{DRIVER}/unbind", self.name)
        self.function.enable()


class Claimed(Case):
    """A driver of the kernel claims a BAR that programs have mapped: SIGBUS at their next access."""

    def setUp(self):
        super().setUp()
        self.card = Card()
        self.addCleanup(self.card.leave)
        self.card.function.enable()
        self.url = self.card.function.url(0)
        self.list = self.write("list.csv", HEADER + "2,STATUS,status,false,32\n"
                               f"{0x5400 // 4},ADDRESS,id,false,32\n"
                               f"{0x5200 // 4},FILTER[0:7],data,true,32\n")

    def test_a_program_without_the_guard_dies_of_it(self):
        for access in ("read", "write"):
            with subprocess.Popen(
                    [sys.executable, "-c", PLAIN, f"{self.card.function.folder}/resource0"],
                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1) as plain:
                plain.stdin.write("read\n")
                self.assertNotEqual("", plain.stdout.readline())
                self.card.claim()
                plain.stdin.write(f"{access}\n")
                self.assertEqual("", plain.stdout.readline())
                self.assertEqual(-signal.SIGBUS, plain.wait(TIMEOUT))
            self.card.leave()

    def test_reads_fail_and_the_process_lives(self):
        with Client(self, self.list, self.url) as client:
            self.assertEqual(f"{CARD_ADDRESS:#x}", client.do("read ADDRESS"))
            self.card.claim()
            for name in ("ADDRESS", "STATUS", "ADDRESS"):
                self.assertEqual(f"failed: {BUS_ERROR} '{name}'", client.do(f"read {name}"))

    def test_writes_fail_and_the_process_lives(self):
        with Client(self, self.list, self.url) as client:
            self.assertEqual("done", client.do("write FILTER[0] 0xa5a5a5a5"))
            self.assertEqual("0xa5a5a5a5", client.do("read FILTER[0]"))
            self.card.claim()
            for _ in range(2):
                self.assertEqual(f"failed: {BUS_ERROR} 'FILTER[0]'",
                                 client.do("write FILTER[0] 0x5a5a5a5a"))
        # None of them arrived: the driver has cleared the register.
        self.card.leave()
        with Client(self, self.list, self.url) as client:
            self.assertEqual("0x0", client.do("read FILTER[0]"))

    def test_blocks_fail_and_the_process_lives(self):
        with Client(self, self.list, self.url) as client:
            self.assertEqual("done", client.do("writearray FILTER[0] 1 2 3 4 5 6 7 8"))
            self.assertEqual("0x1 0x2 0x3 0x4 0x5 0x6 0x7 0x8",
                             client.do("readarray FILTER[0] 8"))
            self.card.claim()
            for words in ("readarray FILTER[0] 8", "writearray FILTER[0] 1 2 3 4 5 6 7 8"):
                self.assertEqual(f"failed: {BUS_ERROR} 'FILTER[0]'", client.do(words))

    def test_the_mapping_stays_lost_and_a_new_one_works(self):
        with Client(self, self.list, self.url) as client:
            client.do("read ADDRESS")
            self.card.claim()
            client.do("read ADDRESS")
            self.card.leave()
            self.assertEqual(f"failed: {BUS_ERROR} 'ADDRESS'", client.do("read ADDRESS"))
            self.assertEqual({"ADDRESS": CARD_ADDRESS}, self.values(self.list, self.url, "ADDRESS"))

    def test_other_devices_of_a_process_are_none_the_worse(self):
        edu = Function(*EDU)
        registers = self.write("edu.csv", HEADER + "0,ID,id,false,32\n")
        with Client(self, registers, edu.url(0)) as client:
            self.card.claim()
            self.assertEqual(f"{IDENTIFICATION:#x}", client.do("read ID"))

    def test_a_claimed_bar_cannot_be_opened(self):
        self.card.claim()
        said = self.tarnreg_fails(self.list, self.url, "read", "ADDRESS")
        self.assertIn("Error mapping PCI register space", said)

    def test_a_watch_tells_the_loss_and_goes_on(self):
        watch = Background(self, TARNREG, "--file", self.list, "--transport", self.url, "watch",
                           "ADDRESS", "--interval", "0.1")
        watch.wait_until(lambda: watch.says("ADDRESS  0x12005452"), "the first value")
        self.card.claim()
        watch.wait_until(lambda: watch.says("cannot read ADDRESS: " + BUS_ERROR), "the loss")
        self.assertTrue(watch.runs())
        watch.process.send_signal(signal.SIGINT)
        self.assertEqual(-signal.SIGINT, watch.process.wait(TIMEOUT))

    def test_the_agent_notices_the_loss_and_begins_a_new_generation_when_it_is_over(self):
        with Agent(self, self.url, check=100) as agent:
            agent.await_state(phase="ready", generation=1)
            agent.set("FILTER[3]=0x33333333")
            self.card.claim()
            state = agent.await_state(phase="waiting", ready="false", losses=1, generation=1)
            self.assertIn("PCI register space", state["error"])
            self.card.leave()
            agent.await_state(phase="ready", generation=2, losses=1)
            self.assertEqual(CARD_ADDRESS, agent.get("ADDRESS"))
            agent.await_value("FILTER[3]", 0x33333333)
            self.assertEqual({"FILTER[3]": 0x33333333},
                             self.values(self.list, self.url, "FILTER[3]"))

    def test_a_wish_that_meets_the_loss_is_written_once_it_is_over(self):
        with Agent(self, self.url) as agent:
            agent.await_state(phase="ready", generation=1)
            self.card.claim()
            self.assertEqual(0, agent.shadow("set", "FILTER[5]=0x55555555").code)
            agent.await_state(phase="waiting", ready="false", losses=1)
            self.card.leave()
            agent.await_state(phase="ready", generation=2)
            agent.await_value("FILTER[5]", 0x55555555)
            self.assertEqual({"FILTER[5]": 0x55555555},
                             self.values(self.list, self.url, "FILTER[5]"))


class Unplugged(Case):
    """The device itself goes. The mapping stays and leads nowhere."""

    def setUp(self):
        super().setUp()
        self.list = self.write("list.csv", HEADER + "0,ID,id,false,32\n1,LIVE,scratch,true,32\n")

    def test_nothing_is_behind_the_mapping_of_an_unplugged_device_until_it_is_back(self):
        edu = Function(*EDU)
        with Client(self, self.list, edu.url(0)) as client:
            self.assertEqual(f"{IDENTIFICATION:#x}", client.do("read ID"))
            host.ask("unplug", device="edu")
            self.assertFalse(os.path.exists(edu.folder))
            # No signal and no error. What tells it is a register of known content.
            self.assertIn(client.do("read ID"), ("0x0", "0xffffffff"))
            self.assertEqual("done", client.do("write LIVE 1"))
            self.assertIn(client.do("read LIVE"), ("0x0", "0xffffffff"))
            self.assertIn("No such file or directory",
                          self.tarnreg_fails(self.list, edu.url(0), "read", "ID"))
            host.ask("plug", device="edu")
            wait_for(lambda: os.path.exists(f"{edu.folder}/resource0"), "the device")
            self.assertEqual({"ID": IDENTIFICATION},
                             self.values(self.list, Function(*EDU).url(0), "ID"))

    def test_a_removed_function_is_still_there_for_who_has_it_mapped(self):
        shared = Function(*SHARED)
        host.ask("fill", word=0)
        with Client(self, self.list, shared.url(2)) as client:
            put(f"{shared.folder}/remove", "1")
            self.assertFalse(os.path.exists(shared.folder))
            self.assertEqual("done", client.do("write LIVE 0x12345678"))
            self.assertEqual([[1, 0x12345678]], host.ask("words", other_than=0))
            self.assertIn("No such file or directory",
                          self.tarnreg_fails(self.list, shared.url(2), "read", "ID"))
            put("/sys/bus/pci/rescan", "1")
            wait_for(lambda: os.path.exists(f"{shared.folder}/resource2"), "the function")
            self.assertEqual({"LIVE": 0x12345678},
                             self.values(self.list, Function(*SHARED).url(2), "LIVE"))

    def test_the_agent_begins_a_new_generation_with_the_device_that_came_back(self):
        shared = Function(*SHARED)
        host.ask("fill", word=0)
        host.ask("put", number=0, value=1)
        with Agent(self, shared.url(2)) as agent:
            agent.await_state(phase="ready", generation=1)
            agent.set("LIVE=0x77")
            host.ask("unplug", device="shared")
            agent.begin_generation()
            state = agent.await_state(phase="waiting", ready="false", valid="false")
            self.assertIn("No such file or directory", state["error"])
            host.ask("fill", word=0)
            host.ask("put", number=0, value=2)
            host.ask("plug", device="shared")
            wait_for(lambda: os.path.exists(f"{shared.folder}/resource2"), "the device")
            # Before its memory is switched on a probe finds nothing wrong, and nothing there.
            Function(*SHARED).enable()
            agent.begin_generation()
            agent.await_value("ID", 2)
            agent.await_value("LIVE", 0x77)
            self.assertGreater(int(agent.await_state(phase="ready")["generation"]), 1)
            self.assertEqual([[0, 2], [1, 0x77]], host.ask("words", other_than=0))
