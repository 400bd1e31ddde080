"""tarn-shadowd over a simulated bus: devices that are not there, go and come back."""

import os
import signal
import unittest

from agent import Simulated, wait_for


class Loss(Simulated):
    def test_a_device_that_is_not_there_is_waited_for(self):
        self.start(present="false")
        state = self.await_state(phase="waiting", valid="false", ready="false")
        self.assertEqual("0", state["generation"])
        self.assertTrue(state["error"].startswith(
            "fpga: cannot use the device: register 'ID': "), state)
        self.assertEqual([], self.registers())
        wait_for(lambda: int(self.state()["errors"]) > 2, "further probes")
        self.sim("return", "chip")
        self.await_state(phase="ready", valid="true", generation=1, losses=0)
        self.assertEqual(["0x0=0x1d", "0x4=0xc", "0x8=0x5"], self.registers())

    def test_the_register_that_cannot_be_read_is_named(self):
        # From the second read on, which in the first probe is that of the second register.
        self.start(faults='faults = [{ kind = "nak", direction = "read", first = 2 }]')
        wait_for(lambda: self.agent.says("register 'CTRL'"), "the name")
        self.await_state(phase="waiting", generation=0, valid="false")
        self.assertIsNone(self.agent.process.poll())

    def test_a_lost_device_is_noticed_and_comes_back_as_a_new_generation(self):
        self.start()
        self.await_state(phase="ready", generation=1)
        self.client("put", "fpga/config", 8, 0x77)
        self.await_registers("0x8=0x77")
        self.sim("lose", "chip")
        state = self.await_state(phase="waiting", ready="false", valid="false", losses=1)
        self.assertIn("fpga", state["error"])
        self.assertEqual("1", state["generation"])
        # What a power cycle does.
        self.sim("set", "chip", "8", "0x5")
        self.sim("return", "chip")
        self.await_state(phase="ready", generation=2, losses=1)
        self.assertEqual(["0x0=0x1d", "0x4=0xc", "0x8=0x77"], self.registers())
        self.assertEqual("0x77", hex(int(self.sim("get", "chip", "8").strip(), 0)))

    def test_one_failure_is_no_loss(self):
        self.start(check=0)
        self.await_state(phase="ready")
        self.sim("fault", "chip", "nak", "direction=write", "count=1")
        self.client("put", "fpga/config", 8, 0x77)
        self.await_state(errors=1, losses=0, ready="true", generation=1)
        # The register was read again: the shadow tells what the hardware has.
        self.await_registers("0x8=0x5")
        self.client("put", "fpga/config", 8, 0x78)
        self.await_registers("0x8=0x78")

    def test_an_ordered_operation_stops_where_a_write_fails(self):
        self.start(check=0)
        self.await_state(phase="ready")
        self.sim("fault", "chip", "nak", "direction=write", "first=2", "count=1")
        self.client("order", "fpga", 9, 3, "4=1", "8=2", "4=3")
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operation")
        self.assertEqual(["9/3 0x4=0x1"], self.ordered())
        self.await_state(ready="true", losses=0)
        self.await_registers("0x4=0x1", "0x8=0x5")
        self.assertEqual("0x1", hex(int(self.sim("get", "chip", "4").strip(), 0)))

    def test_an_operation_that_its_agent_died_over_is_not_run_again(self):
        self.start(check=0)
        state = self.await_state(phase="ready")
        self.sim("delay", "chip", "100000")
        self.client("order", "fpga", 9, 100, *(f"{4 + 4 * (i % 2)}={i + 1}" for i in range(100)))
        self.client("order", "fpga", 10, 1, "8=0x88")
        wait_for(lambda: self.ordered() not in ([], ["9/100"]), "the first write")
        os.kill(int(state["pid"]), signal.SIGKILL)
        self.agent.wait()
        made = len(self.ordered()[0].split()) - 1
        self.assertLess(made, 100)
        # The board is a new one, in which nothing was written.
        self.start(check=0)
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operations")
        self.assertEqual(made, len(self.ordered()[0].split()) - 1)
        self.assertEqual("10/1 0x8=0x88", self.ordered()[1])
        self.assertEqual("0xc", hex(int(self.sim("get", "chip", "4").strip(), 0)))
        self.assertEqual("0x88", hex(int(self.sim("get", "chip", "8").strip(), 0)))

    def test_operations_wait_for_a_device_that_is_away(self):
        self.start(present="false")
        self.await_state(phase="waiting")
        self.client("order", "fpga", 9, 1, "8=2")
        wait_for(lambda: int(self.state()["errors"]) > 2, "probes")
        self.assertEqual([], self.ordered())
        self.sim("return", "chip")
        wait_for(lambda: self.ordered() == ["9/1 0x8=0x2"], "the operation")

    def test_what_is_configured_already_costs_no_bus_access(self):
        self.start(check=0)
        self.await_state(phase="ready")
        self.client("put", "fpga/config", 8, 0x77)
        self.await_registers("0x8=0x77")
        self.sim("forget", "chip")
        self.client("put", "fpga/config", 8, 0x77)
        self.client("put", "fpga/config", 4, 0x44)
        self.await_registers("0x4=0x44")
        self.assertEqual(1, len(self.journal("write")), self.sim("journal", "chip"))


class AsyncLoss(Loss):
    """The same through the access manager, whose results come later."""

    transport = "sorn:/dev/i2c-3@0x50?timeout=2000"


if __name__ == "__main__":
    unittest.main()
