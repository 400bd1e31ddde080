"""tarn-shadowd over devices in memory."""

import os
import signal
import socket
import unittest
import urllib.request

from agent import Agent, Case, wait_for

BOARD = """
[devices.fpga]
list = "list.csv"
transport = "mock:values.csv"

[devices.cpld]
list = "list.csv"
transport = "mock:"

[shadow]
cores = ["fpga"]
retry_first_ms = 20
retry_most_ms = 50
check_interval_ms = 0
"""


class Shadowd(Case):
    def setUp(self):
        super().setUp()
        self.board = self.write("board.toml", BOARD)
        self.write("values.csv", "Address,Value\n0,29\n16,12\n32,5\n")

    def agent(self, *options, **settings):
        agent = Agent(self, *options, **settings)
        wait_for(lambda: agent.says("Serving") or agent.process.poll() is not None, "the agent")
        self.assertIsNone(agent.process.poll(), agent.log())
        return agent

    def value(self, address):
        """What the device has; its addresses are four times the numbers of the list."""
        with open(self.path("values.csv"), encoding="utf-8") as file:
            return dict(line.strip().split(",") for line in file).get(str(4 * address))

    def test_the_shadow_has_what_the_hardware_has(self):
        agent = self.agent()
        state = self.await_state(phase="ready", ready="true", valid="true")
        self.assertEqual(["0x0=0x1d", "0x4=0xc", "0x8=0x5"], self.registers())
        self.assertEqual(("1", "3", "3", "0", "0"),
                         tuple(state[name]
                               for name in ("generation", "read", "total", "errors", "losses")))
        self.assertEqual(str(agent.process.pid), state["pid"])
        self.assertGreater(int(state["sync_us"]), 0)
        self.assertGreater(int(state["access"]), 0)
        self.assertEqual("", state["error"])

    def test_what_clients_want_is_written(self):
        self.agent()
        self.await_state(phase="ready")
        self.client("put", "fpga/config", 8, 0x77)
        self.await_registers("0x8=0x77")
        self.assertEqual(str(0x77), self.value(8))

    def test_what_was_wanted_before_the_agent_came_is_written(self):
        self.client("put", "fpga/config", 8, 0x99)
        self.agent()
        self.await_state(phase="ready")
        self.assertIn("0x8=0x99", self.registers())
        self.assertEqual(str(0x99), self.value(8))

    def test_a_value_for_a_register_that_is_not_writable_is_left_alone(self):
        self.agent()
        self.await_state(phase="ready")
        self.client("put", "fpga/config", 0, 1)
        self.client("put", "fpga/config", 8, 2)
        self.await_registers("0x8=0x2")
        self.assertIn("0x0=0x1d", self.registers())
        self.assertEqual("29", self.value(0))

    def test_an_address_that_no_register_has_does_not_end_the_agent(self):
        self.client("put", "fpga/config", 0x40, 1)
        agent = self.agent()
        self.await_state(phase="ready")
        self.assertEqual([], self.registers("fpga/config"))
        self.client("put", "fpga/config", 0x44, 1)
        wait_for(lambda: self.registers("fpga/config") == [], "the entry to be removed")
        self.assertEqual("fpga: address 0x44 is configured, but no register has it; the entry is "
                         "removed", self.await_state(ready="true")["error"])
        wait_for(lambda: agent.says("address 0x40 is configured"), "the message")

    def test_a_core_in_memory_has_no_other_cores_values(self):
        self.agent("--core", "fpga", "--core", "cpld")
        self.await_state(phase="ready")
        self.await_state("cpld", phase="ready")
        self.assertEqual(["0x0=0x1d", "0x4=0xc", "0x8=0x5"], self.registers())
        self.assertEqual(["0x0=0x0", "0x4=0x0", "0x8=0x0"], self.registers("cpld/status"))
        self.client("put", "cpld/config", 8, 0x99)
        self.await_registers("0x8=0x99", table="cpld/status")
        self.assertEqual("5", self.value(8))

    def test_hup_begins_a_new_generation_of_all_cores(self):
        agent = self.agent("--core", "fpga", "--core", "cpld")
        for core in ("fpga", "cpld"):
            self.await_state(core, phase="ready", generation=1)
        agent.signal(signal.SIGHUP)
        for core in ("fpga", "cpld"):
            self.await_state(core, phase="ready", generation=2)

    def test_a_request_begins_a_new_generation_of_its_core(self):
        self.agent("--core", "fpga", "--core", "cpld")
        for core in ("fpga", "cpld"):
            self.await_state(core, phase="ready", generation=1)
        self.client("put", "fpga/request", 0, 7)
        self.await_state("fpga", phase="ready", generation=2, request=7)
        self.client("put", "fpga/request", 0, 7)
        self.client("put", "fpga/request", 0, 8)
        self.await_state("fpga", phase="ready", generation=3, request=8)
        self.assertEqual("1", self.state("cpld")["generation"])

    def test_term_stops_it_and_says_so(self):
        agent = self.agent()
        self.await_state(phase="ready")
        self.assertEqual(0, agent.stop(), agent.log())
        state = self.state()
        self.assertEqual(("stopped", "false", "false"),
                         (state["phase"], state["ready"], state["valid"]))

    def test_told_twice_it_stops_as_if_told_once(self):
        agent = self.agent()
        self.await_state(phase="ready")
        agent.signal(signal.SIGTERM)
        agent.signal(signal.SIGINT)
        # The last one may come when all is done, and nobody takes signals any more.
        self.assertIn(agent.stop(), (0, -signal.SIGINT, -signal.SIGTERM), agent.log())
        self.assertTrue(agent.says("Stopped"), agent.log())
        self.assertEqual("stopped", self.state()["phase"])
        # And leaves nothing in the next one's way.
        agent = self.agent()
        self.await_state(phase="ready", pid=agent.process.pid)

    def test_a_killed_agent_leaves_nothing_to_clean_up(self):
        agent = self.agent()
        self.await_state(phase="ready")
        self.client("put", "fpga/config", 8, 3)
        self.await_registers("0x8=0x3")
        agent.kill()
        agent = self.agent()
        self.await_state(phase="ready", pid=agent.process.pid)
        self.assertEqual(["0x0=0x1d", "0x4=0xc", "0x8=0x3"], self.registers())

    def test_a_second_agent_of_a_core_is_refused(self):
        first = self.agent()
        self.await_state(phase="ready")
        second = Agent(self)
        self.assertEqual(4, second.wait())
        self.assertEqual("tarn-shadowd: core 'fpga' has an agent already, process "
                         f"{first.process.pid}\n", second.log())
        self.assertEqual(str(first.process.pid), self.state()["pid"])
        # Another core is free.
        self.agent("--core", "cpld")
        self.await_state("cpld", phase="ready")
        self.client("put", "fpga/config", 8, 4)
        self.await_registers("0x8=0x4")

    def test_ordered_writes_are_made_in_order_and_told(self):
        self.agent()
        self.await_state(phase="ready")
        self.client("order", "fpga", 100, 3, "4=1", "8=2", "4=3")
        wait_for(lambda: self.ordered() == ["100/3 0x4=0x1 0x8=0x2 0x4=0x3"]
                 and self.ordered("fpga/ops") == [], "the operation")
        self.await_registers("0x4=0x3", "0x8=0x2")
        self.assertEqual(("3", "2"), (self.value(4), self.value(8)))
        self.assertEqual([], self.registers("fpga/config"))

    def test_an_ordered_write_replaces_what_was_wanted(self):
        self.agent()
        self.await_state(phase="ready")
        self.client("put", "fpga/config", 8, 1)
        self.await_registers("0x8=0x1")
        self.client("order", "fpga", 100, 1, "8=2")
        self.await_registers("0x8=0x2", table="fpga/config")
        self.assertEqual("2", self.value(8))

    def test_it_stops_at_the_first_write_that_fails(self):
        self.agent()
        self.await_state(phase="ready")
        self.client("order", "fpga", 1, 3, "4=1", "0=9", "8=2")
        self.client("order", "fpga", 2, 2, "0x40=1", "8=2")
        self.client("order", "fpga", 3, 3, "8=7")
        self.client("order", "fpga", 4, 1, "4=0x44")
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operations")
        self.assertEqual(["1/3 0x4=0x1", "2/2", "3/3", "4/1 0x4=0x44"], self.ordered())
        self.assertEqual(("29", "68", "5"), (self.value(0), self.value(4), self.value(8)))
        self.assertIn("it says 3 writes, and has 1 registers and 1 values", self.state()["error"])

    def test_what_was_begun_before_is_not_run_again(self):
        # As an agent leaves it that dies after a write: claimed, one of two known.
        self.client("order", "fpga", 5, 2, "4=0x51", "8=0x52")
        self.client("claim", "fpga", 5, 2, "4=0x51")
        self.client("order", "fpga", 6, 1, "8=0x62")
        agent = self.agent()
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operations")
        self.assertEqual(["5/2 0x4=0x51", "6/1 0x8=0x62"], self.ordered())
        self.assertEqual(("12", "98"), (self.value(4), self.value(8)))
        wait_for(lambda: agent.says("was begun before and is not repeated"), "the message")
        # Nor if it is asked for again.
        self.client("order", "fpga", 6, 1, "8=0x63")
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operation")
        self.assertEqual("98", self.value(8))

    def test_operations_found_at_the_start_run_in_the_order_of_their_ids(self):
        for key in (30, 10, 20):
            self.client("order", "fpga", key, 1, f"8={key}")
        self.agent()
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operations")
        self.assertEqual("30", self.value(8))
        self.assertEqual(3, len(self.ordered()))

    def test_the_oldest_outcomes_go(self):
        with open(self.board, "a", encoding="utf-8") as file:
            file.write("kept_operations = 2\n")
        self.agent()
        self.await_state(phase="ready")
        for key in (3, 2, 1):
            self.client("order", "fpga", key, 1, f"8={key}")
            wait_for(lambda: self.ordered("fpga/ops") == [], "the operation")
        wait_for(lambda: self.ordered() == ["1/1 0x8=0x1", "2/1 0x8=0x2"], "the two last ones")

    def test_metrics_are_shown(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        self.agent("--metrics", f"127.0.0.1:{port}")
        self.await_state(phase="ready")
        self.client("order", "fpga", 1, 1, "8=2")
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operation")
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=60) as page:
            text = page.read().decode()
        for line in ('shadowd_generations_total{core="fpga"} 1',
                     'shadowd_ordered_writes_total{core="fpga"} 1',
                     'shadowd_losses_total{core="fpga"} 0',
                     'shadowd_sync_seconds_count{core="fpga"} 1'):
            self.assertIn(line, text)

    def test_the_service_manager_is_told(self):
        path = self.path("notify")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(path)
            manager.settimeout(120)
            agent = self.agent(settings={"NOTIFY_SOCKET": path, "WATCHDOG_USEC": "60000"})
            self.assertEqual(b"READY=1", manager.recv(256))
            self.assertEqual(b"WATCHDOG=1", manager.recv(256))
            self.assertEqual(b"WATCHDOG=1", manager.recv(256))
            agent.stop()
            seen = b""
            while seen != b"STOPPING=1":
                seen = manager.recv(256)

    def test_what_is_wrong_is_said(self):
        for board, options, code, text in (
                (BOARD, ("--core", "none"), 2, "there is no device 'none' in "),
                (BOARD.replace('["fpga"]', '["none"]'), (), 1, ":11:10: there is no device 'none'"),
                (BOARD.replace('["fpga"]', "[]"), (), 2, "no core to look after"),
                (BOARD + "nonsense = 1\n", (), 1, "nonsense"),
                (BOARD + 'trace = "x=y"\n', (), 1, ":15:9: "),
                (BOARD.replace("list.csv", "none.csv"), (), 1, "none.csv"),
                (BOARD, ("--metrics", "nowhere"), 2, "nowhere"),
        ):
            self.write("board.toml", board)
            agent = Agent(self, *options)
            self.assertEqual(code, agent.wait(), agent.log())
            self.assertIn(text, agent.log())

    def test_check_only_reads(self):
        agent = Agent(self, "--check")
        self.assertEqual(0, agent.wait())
        self.assertFalse(os.path.exists(self.path("tables")))


if __name__ == "__main__":
    unittest.main()
