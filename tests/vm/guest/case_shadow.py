"""tarn-shadowd over devices that are none of ours: QEMU's shared memory, which the host reads and
writes as a file, and the kernel's I2C stub."""

import host
from case_pci import SHARED
from support import HEADER, Agent, Case, Driver, Function, bus, load_stub

EMPTY = 0xEEEEEEEE
CHIP = 0x55


class Memory(Case):
    def setUp(self):
        super().setUp()
        self.url = Function(*SHARED).url(2)
        self.write("list.csv", HEADER + "0,ID,id,false,32\n1,CTRL,control,true,32\n"
                   "2,SCRATCH,control,true,32\n")
        host.ask("fill", word=EMPTY)

    def words(self):
        return {number: value for number, value in host.ask("words", other_than=EMPTY)}

    def test_the_shadow_has_what_the_host_put_there_and_the_host_finds_what_is_wished(self):
        host.ask("put", number=0, value=0x1D)
        with Agent(self, self.url) as agent:
            agent.await_state(phase="ready", generation=1)
            self.assertEqual((0x1D, EMPTY), (agent.get("ID"), agent.get("CTRL")))
            self.assertEqual({0: 0x1D}, self.words())
            agent.set("SCRATCH=0x12345678")
            self.assertEqual({0: 0x1D, 2: 0x12345678}, self.words())
            agent.set("CTRL=1", "SCRATCH=2")
            self.assertEqual({0: 0x1D, 1: 1, 2: 2}, self.words())

    def test_a_new_generation_finds_what_the_host_has_changed_and_restores_what_is_wished(self):
        with Agent(self, self.url) as agent:
            agent.await_state(phase="ready", generation=1)
            agent.set("SCRATCH=7")
            host.ask("put", number=0, value=0xABCD)
            host.ask("put", number=1, value=0x99)
            host.ask("put", number=2, value=0)
            agent.begin_generation()
            agent.await_state(phase="ready", generation=2)
            self.assertEqual((0xABCD, 0x99), (agent.get("ID"), agent.get("CTRL")))
            agent.await_value("SCRATCH", 7)
            self.assertEqual({0: 0xABCD, 1: 0x99, 2: 7}, self.words())


class Stub(Case):
    def setUp(self):
        super().setUp()
        load_stub()
        self.bus = bus("SMBus stub driver")
        self.url = f"i2c:/dev/i2c-{self.bus}@{CHIP:#x}?flavour=2"
        self.write("list.csv", HEADER + "16,ID,id,false,16\n17,CTRL,control,true,16\n")
        self.set(16, 0x1D)
        self.set(17, 0)

    def get(self, register):
        return int(self.succeed("i2cget", "-y", self.bus, CHIP, register, "w"), 16)

    def set(self, register, value):
        self.succeed("i2cset", "-y", self.bus, CHIP, register, value, "w")

    def test_wishes_reach_the_chip(self):
        with Agent(self, self.url) as agent:
            agent.await_state(phase="ready", generation=1)
            self.assertEqual(0x1D, agent.get("ID"))
            agent.set("CTRL=0x1234")
            self.assertEqual(0x1234, self.get(17))

    def test_a_chip_that_a_driver_has_is_waited_for(self):
        with Driver(self.bus, "lm75", CHIP) as driver, Agent(self, self.url) as agent:
            state = agent.await_state(phase="waiting", generation=0, valid="false")
            self.assertIn("Device or resource busy", state["error"])
            self.assertEqual(0, agent.shadow("set", "CTRL=0x4321").code)
            self.assertIsNone(agent.get("ID"))
            driver.goes()
            agent.await_state(phase="ready", generation=1)
            agent.await_value("CTRL", 0x4321)
            self.assertEqual((0x1D, 0x4321), (agent.get("ID"), self.get(17)))
