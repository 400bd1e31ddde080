"""tarn-shadowd and those who ask it for something: tarnreg shadow."""

import json
import os
import re
import signal
import subprocess
import unittest

from agent import TIMEOUT, Agent, Case, Simulated, wait_for

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

ID = re.compile(r"0x[0-9a-f]{16}\n")


class Client:
    """What tests of the command need beside a case."""

    def shadow(self, *arguments):
        return self.tarnreg("-d", "fpga", "shadow", *arguments)

    def await_operation(self):
        """Until an operation is asked for."""
        wait_for(lambda: os.path.exists(self.path("tables/fpga%2Fops.tbl"))
                 and self.ordered("fpga/ops") != [], "the operation")

    def core(self, *arguments):
        """What `shadow state` says of the core."""
        code, out, err = self.shadow("state", "--json", *arguments)
        self.assertEqual((0, ""), (code, err))
        return json.loads(out)["cores"][0]


class Mock(Client, Case):
    def setUp(self):
        super().setUp()
        self.board = self.write("board.toml", BOARD)
        self.write("values.csv", "Address,Value\n0,29\n16,12\n32,5\n")

    def agent(self, *options):
        agent = Agent(self, *options)
        wait_for(lambda: agent.says("Serving") or agent.process.poll() is not None, "the agent")
        self.assertIsNone(agent.process.poll(), agent.log())
        return agent

    def test_shows_how_a_core_is(self):
        agent = self.agent()
        self.await_state(phase="ready")
        code, out, err = self.shadow("state")
        self.assertEqual((0, ""), (code, err))
        self.assertRegex(
            out, rf"\Afpga  ready  generation 1  owner {agent.process.pid} alive  read 3/3  "
                 r"sync \d+\.\d{6} s  errors 0  losses 0  accessed \d+\.\d s ago\n\Z")
        core = self.core()
        self.assertGreater(core.pop("syncSeconds"), 0)
        self.assertGreaterEqual(core.pop("accessAgeSeconds"), 0)
        self.assertEqual({"name": "fpga", "phase": "ready", "ready": True, "generation": 1,
                          "owner": {"pid": agent.process.pid, "life": "alive"},
                          "registersRead": 3, "registersTotal": 3, "errors": 0, "losses": 0,
                          "lastError": ""}, core)

    def test_shows_all_cores_there_are(self):
        code, out, err = self.tarnreg("shadow", "state")
        self.assertEqual((0, ""), (code, out))
        self.assertIn("tarnreg: note: no core has shown itself in ", err)
        self.agent("--core", "fpga", "--core", "cpld")
        for core in ("fpga", "cpld"):
            self.await_state(core, phase="ready")
        code, out, _ = self.tarnreg("shadow", "state")
        self.assertEqual((0, ["cpld", "fpga"]),
                         (code, [line.split()[0] for line in out.splitlines()]))
        code, out, err = self.tarnreg("shadow", "state", "nope", "cpld")
        self.assertEqual((3, 1), (code, len(out.splitlines())))
        self.assertEqual("tarnreg: error: core 'nope': no owner of it has shown itself\n", err)

    def test_a_killed_agent_is_shown_as_such(self):
        agent = self.agent()
        self.await_state(phase="ready")
        agent.kill()
        code, out, _ = self.shadow("state")
        self.assertEqual(0, code)
        self.assertIn(f"fpga  gone, was ready  generation 1  owner {agent.process.pid} gone  ", out)
        core = self.core()
        self.assertEqual(("ready", False, "gone"),
                         (core["phase"], core["ready"], core["owner"]["life"]))
        code, out, err = self.shadow("get", "SCRATCH")
        self.assertEqual((0, "SCRATCH  0x00000005\n"), (code, out))
        self.assertIn("its owner does not run any more", err)
        self.agent()
        self.await_state(phase="ready")
        self.assertEqual("alive", self.core()["owner"]["life"])
        self.assertEqual((0, "SCRATCH  0x00000005\n", ""), self.shadow("get", "SCRATCH"))

    def test_a_stopped_agent_is_shown_as_such(self):
        agent = self.agent()
        self.await_state(phase="ready")
        self.assertEqual(0, agent.stop())
        self.assertIn("fpga  stopped  generation 1  owner ", self.shadow("state")[1])
        self.assertEqual(False, self.core()["ready"])

    def test_a_wish_is_not_held_by_an_agent_that_has_gone(self):
        agent = self.agent()
        self.await_state(phase="ready")
        self.assertEqual((0, "SCRATCH  0x00000007\n", ""),
                         self.shadow("set", "SCRATCH=7", "--wait"))
        agent.kill()
        code, out, err = self.shadow("set", "SCRATCH=7", "--wait", "--timeout", "0.1")
        self.assertEqual((6, ""), (code, out))
        self.assertIn("SCRATCH is not known to be 0x00000007 after 0.1 s, and the wish stands; core "
                      "'fpga' is not ready: its owner does not run any more", err)
        setting = self.tarnreg_start("-d", "fpga", "shadow", "set", "SCRATCH=8", "--wait",
                                     "--timeout", TIMEOUT)
        self.agent()
        out, err = setting.communicate(timeout=TIMEOUT)
        self.assertEqual((0, "SCRATCH  0x00000008\n", ""), (setting.returncode, out, err))

    def test_resyncs_of_many_clients_all_succeed(self):
        self.agent("--core", "fpga", "--core", "cpld")
        for core in ("fpga", "cpld"):
            self.await_state(core, phase="ready")
        running = [self.tarnreg_start("shadow", "resync", "fpga", "--timeout", TIMEOUT)
                   for _ in range(6)]
        for each in running:
            out, err = each.communicate(timeout=TIMEOUT)
            self.assertEqual((0, ""), (each.returncode, err))
            self.assertRegex(out, r"\Afpga  ready  generation ([2-7])  ")
        self.assertEqual("1", self.state("cpld")["generation"])
        code, out, _ = self.tarnreg("shadow", "resync", "cpld", "fpga")
        self.assertEqual((0, 2), (code, len(out.splitlines())))

    def test_a_resync_that_nobody_does_times_out(self):
        code, out, err = self.shadow("resync", "--timeout", "0.1")
        self.assertEqual((6, ""), (code, out))
        self.assertEqual("tarnreg: error: core 'fpga' has no new generation in time: no owner of it "
                         "has shown itself\n", err)
        waiting = self.tarnreg_start("-d", "fpga", "shadow", "resync", "--timeout", TIMEOUT)
        self.agent()
        out, err = waiting.communicate(timeout=TIMEOUT)
        self.assertEqual((0, ""), (waiting.returncode, err))
        self.assertEqual(2, self.tarnreg("shadow", "resync")[0])

    def test_an_order_is_carried_out_and_told(self):
        self.agent()
        self.await_state(phase="ready")
        self.assertEqual((0, "CTRL     0x00000001\nSCRATCH  0x00000002\nCTRL     0x00000003\n", ""),
                         self.shadow("order", "CTRL=1", "SCRATCH=2", "CTRL=3"))
        with open(self.path("values.csv"), encoding="utf-8") as file:
            self.assertEqual({"0,29", "16,3", "32,2"}, set(file.read().split()[1:]))
        code, out, _ = self.shadow("order", "CTRL=4", "--json")
        document = json.loads(out)
        self.assertEqual((0, "complete", 1, [4]),
                         (code, document["stage"], document["size"],
                          [each["value"] for each in document["registers"]]))
        self.assertRegex(document["operation"] + "\n", ID)
        # It goes before what is wished.
        self.shadow("set", "CTRL=5", "--wait")
        self.assertEqual(0, self.shadow("order", "CTRL=6")[0])
        self.assertEqual((0, "CTRL  0x00000006  0x00000006\n", ""), self.shadow("list", "CTRL"))

    def test_a_bad_order_is_refused_before_anything_is_written(self):
        self.agent()
        self.await_state(phase="ready")
        for writes, code, text in ((("CTRL=1", "ID=2"), 4, "ID is read-only"),
                                   (("CTRL=1", "CTLR=2"), 3, "no register CTLR"),
                                   (("CTRL=1", "CTRL"), 2, "CTRL: a write is NAME=VALUE"),
                                   (("CTRL=1",) * 129, 2, "129 writes are too many"),
                                   ((), 2, "NAME=VALUE is needed: the writes")):
            done = self.shadow("order", *writes)
            self.assertEqual((code, ""), done[:2])
            self.assertIn(text, done[2])
        self.assertEqual(([], []), (self.ordered(), self.ordered("fpga/ops")))
        self.assertIn("0x4=0xc", self.registers())

    def test_as_many_writes_as_an_operation_has_are_carried_out(self):
        self.agent()
        self.await_state(phase="ready")
        code, out, _ = self.shadow("order", *(f"CTRL={i}" for i in range(128)))
        self.assertEqual((0, 128), (code, len(out.splitlines())))
        self.assertEqual((0, "CTRL  0x0000007f\n", ""), self.shadow("get", "CTRL"))

    def test_an_order_waits_for_an_agent_that_comes_later(self):
        order = self.tarnreg_start("-d", "fpga", "shadow", "order", "CTRL=1", "SCRATCH=2",
                                   "--timeout", TIMEOUT)
        self.await_operation()
        self.agent()
        out, err = order.communicate(timeout=TIMEOUT)
        self.assertEqual((0, "CTRL     0x00000001\nSCRATCH  0x00000002\n", ""),
                         (order.returncode, out, err))

    def test_an_order_that_nobody_carries_out_times_out_and_stands(self):
        code, out, err = self.shadow("order", "CTRL=1", "--timeout", "0.1")
        self.assertEqual((6, ""), (code, out))
        self.assertRegex(err, r"\Atarnreg: error: operation 0x[0-9a-f]{16} of core 'fpga' has not "
                              r"begun in time: no owner of it has shown itself\n\Z")
        operation = err.split()[3]
        self.agent()
        self.assertEqual((0, "CTRL  0x00000001\n", ""), self.shadow("outcome", operation))

    def test_an_order_of_a_client_that_was_killed_is_carried_out(self):
        order = self.tarnreg_start("-d", "fpga", "shadow", "order", "CTRL=1", "--timeout", TIMEOUT)
        self.await_operation()
        order.kill()
        order.wait(TIMEOUT)
        self.agent()
        self.await_registers("0x4=0x1")

    def test_an_order_is_looked_after_by_its_id(self):
        self.agent()
        self.await_state(phase="ready")
        code, out, err = self.shadow("order", "CTRL=1", "SCRATCH=2", "--no-wait")
        self.assertEqual((0, ""), (code, err))
        self.assertRegex(out, ID)
        done = self.shadow("outcome", out.strip())
        self.assertEqual((0, "CTRL     0x00000001\nSCRATCH  0x00000002\n", ""), done)
        code, _, err = self.shadow("cancel", out.strip())
        self.assertEqual(4, code)
        self.assertIn("has ended and cannot be taken back", err)
        for verb in ("outcome", "cancel"):
            code, _, err = self.shadow(verb, "0x77")
            self.assertEqual(3, code)
            self.assertIn("no operation 0x0000000000000077 of core 'fpga'", err)
            self.assertEqual(2, self.shadow(verb, "x")[0])

    def test_an_order_that_waits_is_cancelled(self):
        _, out, _ = self.shadow("order", "CTRL=1", "--no-wait")
        _, other, _ = self.shadow("order", "SCRATCH=2", "--no-wait")
        self.assertEqual((0, out, ""), self.shadow("cancel", out.strip()))
        self.agent()
        self.assertEqual(0, self.shadow("outcome", other.strip())[0])
        self.assertIn("0x4=0xc", self.registers())
        self.assertEqual(3, self.shadow("outcome", out.strip())[0])

    def test_an_outcome_that_is_not_kept_is_told_as_such(self):
        with open(self.board, "a", encoding="utf-8") as file:
            file.write("kept_operations = 1\n")
        self.agent()
        self.await_state(phase="ready")
        _, out, _ = self.shadow("order", "CTRL=1", "--no-wait")
        self.assertEqual(0, self.shadow("outcome", out.strip())[0])
        self.assertEqual(0, self.shadow("order", "CTRL=2")[0])
        code, _, err = self.shadow("outcome", out.strip())
        self.assertEqual(3, code)
        self.assertIn("its outcome is not kept", err)


class Example(Client, Simulated):
    def run_it(self):
        done = subprocess.run([os.environ["SHADOW_ORDER"], self.path("list.csv"), "fpga"],
                              env=self.env, capture_output=True, text=True, timeout=TIMEOUT,
                              check=False)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        return done.stdout

    def test_the_example_orders_writes_and_has_the_core_resynced(self):
        self.start(check=0)
        self.await_state(phase="ready")
        self.assertRegex(self.run_it(), r"\A2 of 2 writes were made\nfpga: it is ready\n"
                                        r"generation 2, read in \d+ us\n\Z")
        self.sim("fault", "chip", "nak", "direction=write", "first=2", "count=1")
        self.assertRegex(self.run_it(), r"\A1 of 2 writes were made\n"
                                        r"the core's last error: operation 0x\w+ stopped after 1 of "
                                        r"2 writes: register 'SCRATCH'.*\nfpga: it is ready; its "
                                        r"last error: .*\ngeneration 3, read in \d+ us\n\Z")


class OverABus(Client, Simulated):
    def value(self, address):
        return hex(int(self.sim("get", "chip", str(address)).strip(), 0))

    def test_resync_reads_the_hardware_anew(self):
        self.start(check=0)
        self.await_state(phase="ready", generation=1)
        self.sim("set", "chip", "8", "0x99")
        self.sim("forget", "chip")
        self.assertEqual((0, "SCRATCH  0x00000005\n", ""), self.shadow("get", "SCRATCH"))
        self.assertEqual([], self.journal("read"))
        code, out, err = self.shadow("resync", "--timeout", TIMEOUT)
        self.assertEqual((0, ""), (code, err))
        self.assertRegex(out, r"\Afpga  ready  generation 2  ")
        self.assertEqual((0, "SCRATCH  0x00000099\n", ""), self.shadow("get", "SCRATCH"))
        self.assertLessEqual(6, len(self.journal("read")), "a probe and a sync of three registers")

    def test_a_resync_of_a_device_that_is_away_says_why_it_failed(self):
        self.start(present="false")
        self.await_state(phase="waiting")
        code, out, err = self.shadow("resync", "--timeout", "0.3")
        self.assertEqual((6, ""), (code, out))
        self.assertRegex(err, r"core 'fpga' has no new generation in time: it is "
                              r"(waiting|probing); its last error: fpga: cannot use the device: "
                              r"register 'ID'")
        waiting = self.tarnreg_start("-d", "fpga", "shadow", "resync", "--timeout", TIMEOUT)
        self.sim("return", "chip")
        out, _ = waiting.communicate(timeout=TIMEOUT)
        self.assertEqual(0, waiting.returncode)
        self.assertIn("fpga  ready  generation ", out)

    def test_a_wish_is_not_held_before_a_lost_device_is_back(self):
        self.start()
        self.await_state(phase="ready")
        self.assertEqual(0, self.shadow("set", "SCRATCH=0x77", "--wait")[0])
        self.sim("lose", "chip")
        self.await_state(phase="waiting", losses=1)
        # The status has it, from before.
        code, out, err = self.shadow("set", "SCRATCH=0x77", "--wait", "--timeout", "0.1")
        self.assertEqual((6, ""), (code, out))
        self.assertIn("SCRATCH is not known to be 0x00000077 after 0.1 s, and the wish stands; core "
                      "'fpga' is not ready: it is ", err)
        self.assertEqual("lost" in err or "cannot use the device" in err, True, err)
        setting = self.tarnreg_start("-d", "fpga", "shadow", "set", "SCRATCH=0x77", "--wait",
                                     "--timeout", TIMEOUT)
        self.sim("set", "chip", "8", "0x5") # what a power cycle does
        self.sim("return", "chip")
        out, err = setting.communicate(timeout=TIMEOUT)
        self.assertEqual((0, "SCRATCH  0x00000077\n", ""), (setting.returncode, out, err))
        self.assertEqual("0x77", self.value(8))
        self.assertEqual(2, self.core()["generation"])

    def test_an_order_stops_at_a_write_that_fails(self):
        self.start(check=0)
        self.await_state(phase="ready")
        self.sim("fault", "chip", "nak", "direction=write", "first=2", "count=1")
        code, out, err = self.shadow("order", "CTRL=1", "SCRATCH=2", "CTRL=3")
        self.assertEqual((5, "CTRL  0x00000001\n"), (code, out))
        self.assertRegex(err, r"operation 0x[0-9a-f]{16} of core 'fpga' stopped after 1 of 3 writes;"
                              r" the core's last error: operation 0x[0-9a-f]{16} stopped after 1 of "
                              r"3 writes: register 'SCRATCH'")
        self.assertEqual(("0x1", "0x5"), (self.value(4), self.value(8)))

    def test_an_order_whose_agent_is_killed_is_told_as_far_as_known_and_not_run_again(self):
        self.start(check=0)
        state = self.await_state(phase="ready")
        self.sim("delay", "chip", "100000")
        order = self.tarnreg_start("-d", "fpga", "shadow", "order",
                                   *(f"CTRL={i + 1}" for i in range(100)), "--timeout", TIMEOUT)
        wait_for(lambda: self.ordered() != [] and " " in self.ordered()[0], "the first write")
        os.kill(int(state["pid"]), signal.SIGKILL)
        self.agent.wait()
        made = len(self.ordered()[0].split()) - 1
        self.assertLess(made, 100)
        operation = f"{int(self.ordered()[0].split('/')[0]):#018x}"
        code, out, err = self.shadow("outcome", operation, "--timeout", "0.1")
        self.assertEqual((6, made), (code, len(out.splitlines())))
        self.assertIn(f"{made} of 100 writes are known to be made: its owner does not run any more",
                      err)
        code, _, err = self.shadow("cancel", operation)
        self.assertEqual(4, code)
        self.assertIn("has begun and cannot be taken back", err)
        self.start(check=0)
        out, err = order.communicate(timeout=TIMEOUT)
        self.assertEqual((5, made), (order.returncode, len(out.splitlines())), err)
        self.assertIn(f"stopped after {made} of 100 writes", err)
        self.await_state(phase="ready")
        self.assertEqual("0xc", self.value(4), "the board is a new one, which nothing was written to")

    def test_orders_for_a_device_that_is_away_wait_and_can_be_cancelled(self):
        self.start(present="false")
        self.await_state(phase="waiting")
        code, _, err = self.shadow("order", "CTRL=1", "--timeout", "0.1")
        self.assertEqual(6, code)
        self.assertIn("has not begun in time: it is ", err)
        self.assertEqual(0, self.shadow("cancel", err.split()[3])[0])
        order = self.tarnreg_start("-d", "fpga", "shadow", "order", "SCRATCH=2", "--timeout", TIMEOUT)
        self.await_operation()
        self.sim("return", "chip")
        out, err = order.communicate(timeout=TIMEOUT)
        self.assertEqual((0, "SCRATCH  0x00000002\n", ""), (order.returncode, out, err))
        self.assertEqual(("0xc", "0x2"), (self.value(4), self.value(8)))


if __name__ == "__main__":
    unittest.main()
