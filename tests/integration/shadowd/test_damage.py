"""tarn-shadowd and tables that are damaged: nothing is left for a person to clean up."""

import os
import struct
import unittest

from agent import Agent, Case, wait_for

BOARD = """
[devices.fpga]
list = "list.csv"
transport = "mock:values.csv"

[devices.cpld]
list = "list.csv"
transport = "mock:"

[shadow]
cores = ["fpga", "cpld"]
retry_first_ms = 20
retry_most_ms = 50
check_interval_ms = 0
audit_interval_ms = {audit}
"""

PAGE = 4096


class Damage(Case):
    def setUp(self):
        super().setUp()
        self.write("values.csv", "Address,Value\n0,29\n16,12\n32,5\n")

    def start(self, audit=20, *options):
        self.board = self.write("board.toml", BOARD.format(audit=audit))
        self.agent = Agent(self, *options)
        wait_for(lambda: self.agent.says("Serving") or self.agent.process.poll() is not None,
                 "the agent")
        self.assertIsNone(self.agent.process.poll(), self.agent.log())

    def file(self, table, suffix=".tbl"):
        return self.path(os.path.join("tables", "fpga%2F" + table + suffix))

    def records(self, table):
        """The offsets of what a table holds behind its header, control page and journal: the words
        of its file that are not zero, from its end on."""
        with open(self.file(table), "rb") as file:
            end = file.seek(0, os.SEEK_END)
            at = 0
            words = []
            while True:
                try:
                    at = os.lseek(file.fileno(), at, os.SEEK_DATA)
                except OSError:
                    break
                hole = os.lseek(file.fileno(), at, os.SEEK_HOLE)
                data = os.pread(file.fileno(), hole - at, at)
                words += [at + i for i in range(0, len(data), 8) if any(data[i:i + 8])]
                at = hole
                if at >= end:
                    break
        return words

    def flip(self, table, offset, mask=0x10):
        fd = os.open(self.file(table), os.O_RDWR)
        byte = os.pread(fd, 1, offset)[0]
        os.pwrite(fd, bytes([byte ^ mask]), offset)
        os.close(fd)

    def first_slot(self, table):
        """Where the records begin: behind the hole that the larger index would be in."""
        words = self.records(table)
        last = words[-1] // PAGE * PAGE
        while last - PAGE in {word // PAGE * PAGE for word in words}:
            last -= PAGE
        return last

    def slot_of(self, table, key):
        """Where the slot of a register's record begins: state, link, key."""
        with open(self.file(table), "rb") as file:
            words = self.records(table)
            for offset in reversed(words):
                # A slot's key follows its first two words; its record's first word has the same.
                file.seek(offset)
                if file.read(8) == struct.pack("<Q", key) and offset - 16 in words:
                    return offset - 16
        raise AssertionError(f"no record of {key:#x} in {table}")

    def state_or_none(self, core="fpga"):
        try:
            return self.state(core)
        except AssertionError:
            return {}  # between a damaged table and its successor

    def await_tolerantly(self, core="fpga", **fields):
        wanted = {name: str(value) for name, value in fields.items()}
        seen = {}

        def is_so():
            seen.clear()
            seen.update(self.state_or_none(core))
            return all(seen.get(name) == value for name, value in wanted.items())

        try:
            wait_for(is_so, f"{wanted}")
        except AssertionError as error:
            raise AssertionError(f"{error}; it is {seen}: {self.agent.log()}") from error
        return dict(seen)

    def replaced(self, table):
        return self.agent.says(f"fpga: table 'fpga/{table}' was damaged")

    def test_a_damaged_table_of_what_the_agent_says_is_made_anew(self):
        self.start()
        for generation, table in enumerate(("status", "state"), 1):
            self.await_tolerantly(phase="ready", generation=generation)
            self.flip(table, self.first_slot(table))
            wait_for(lambda: self.replaced(table), f"{table} to be replaced")
            state = self.await_tolerantly(phase="ready", generation=generation + 1)
            self.assertIn(f"table 'fpga/{table}' was damaged", state["error"])
            self.assertTrue(os.path.exists(self.file(table, ".damaged")))
        self.assertEqual(["0x0=0x1d", "0x4=0xc", "0x8=0x5"], self.registers())
        # The other core was not concerned.
        self.assertEqual("1", self.state("cpld")["generation"])
        self.assertEqual("", self.state("cpld")["error"])

    def test_of_wishes_all_that_is_undamaged_is_kept(self):
        self.start()
        self.await_state(phase="ready")
        self.client("put", "fpga/config", 4, 0x44)
        self.client("put", "fpga/config", 8, 0x88)
        self.await_registers("0x4=0x44", "0x8=0x88")
        self.flip("config", self.slot_of("config", 8))
        wait_for(lambda: self.replaced("config"), "config to be replaced")
        state = self.await_tolerantly(phase="ready", generation=2)
        self.assertIn("1 records kept, 1 lost", self.agent.log())
        self.assertIn("table 'fpga/config' was damaged", state["error"])
        self.assertEqual(["0x4=0x44"], self.registers("fpga/config"))
        self.client("put", "fpga/config", 8, 0x99)
        self.await_registers("0x4=0x44", "0x8=0x99")

    def test_every_table_may_be_damaged_at_the_start(self):
        self.start()
        self.await_state(phase="ready")
        self.client("put", "fpga/config", 8, 0x88)
        self.await_registers("0x8=0x88")
        self.client("order", "fpga", 9, 1, "4=1")
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operation")
        self.assertEqual(0, self.agent.stop())
        for table in ("config", "status", "ops", "ops-status", "request", "state"):
            # The word that says how many records there are.
            self.flip(table, PAGE + 64 + 8)
        self.start()
        self.await_tolerantly(phase="ready")
        for table in ("config", "status", "ops", "ops-status", "request", "state"):
            self.assertTrue(self.replaced(table), table)
        self.assertIn("0x8=0x88", self.registers())
        self.assertEqual(["0x8=0x88"], self.registers("fpga/config"))
        self.assertEqual(["9/1 0x4=0x1"], self.ordered(), "what was begun is still known")

    def test_files_that_are_no_tables_any_more_are_replaced(self):
        self.start()
        self.await_state(phase="ready")
        self.assertEqual(0, self.agent.stop())
        for number, table in enumerate(("config", "status", "ops", "ops-status", "request", "state")):
            if number % 2:
                os.truncate(self.file(table), 100)
            else:
                with open(self.file(table), "r+b") as file:
                    file.write(b"\xff" * 64)
        self.start()
        self.await_tolerantly(phase="ready")
        self.assertIn("nobody knows how many", self.agent.log())

    def test_what_is_cut_off_while_it_is_used_is_replaced(self):
        self.start()
        for generation, table in enumerate(("status", "config", "ops", "ops-status", "request",
                                            "state"), 1):
            self.await_tolerantly(phase="ready", generation=generation)
            os.truncate(self.file(table), PAGE)
            wait_for(lambda: self.replaced(table), f"{table} to be replaced")
        self.await_tolerantly(phase="ready", generation=7)
        self.assertEqual("1", self.state("cpld")["generation"])
        # No more than two damaged ones of a table are kept.
        for generation in range(8, 11):
            before = self.agent.log().count("'fpga/status' was damaged")
            os.truncate(self.file("status"), PAGE)
            wait_for(lambda: self.agent.log().count("'fpga/status' was damaged") > before,
                     "status to be replaced")
            self.await_tolerantly(phase="ready", generation=generation)
        kept = [name for name in os.listdir(self.path("tables"))
                if name.startswith("fpga%2Fstatus.damaged")]
        self.assertEqual(["fpga%2Fstatus.damaged", "fpga%2Fstatus.damaged.old"], sorted(kept))

    def test_an_operation_of_which_it_is_not_known_whether_it_was_begun_is_not_begun(self):
        self.start()
        self.await_state(phase="ready")
        self.client("order", "fpga", 9, 1, "4=1")
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operation")
        self.assertEqual(0, self.agent.stop())
        # As if its agent had died over it, and its record had been damaged then.
        self.client("order", "fpga", 9, 1, "4=2")
        self.flip("ops-status", self.slot_of("ops-status", 9))
        self.start()
        self.await_tolerantly(phase="ready")
        wait_for(lambda: self.ordered("fpga/ops") == [], "the operation")
        self.assertEqual(["9/1"], self.ordered())
        self.assertIn("0x4=0x1", self.registers())

    def test_flips_anywhere_end_neither_the_agent_nor_another_core(self):
        self.start()
        self.await_state(phase="ready")
        self.client("put", "fpga/config", 8, 0x88)
        self.await_registers("0x8=0x88")
        for number, table in enumerate(("config", "status", "ops", "ops-status", "request", "state")):
            words = self.records(table)
            for part in range(4):
                offset = words[(len(words) - 1) * part // 3]
                self.flip(table, offset + part, 1 << part)
            # Whoever writes next meets it, or the agent when it looks.
            wish = f"0x8={0x100 + number:#x}"

            def is_wished():
                try:
                    self.client("put", "fpga/config", 8, 0x100 + number)
                    return wish in self.registers()
                except AssertionError:
                    return False  # the client has met it

            wait_for(is_wished, f"{wish} after {table}")
            wait_for(lambda: self.state_or_none().get("phase") == "ready", "the core")
        self.assertIsNone(self.agent.process.poll(), self.agent.log())
        self.assertEqual("1", self.state("cpld")["generation"])
        self.assertEqual(0, self.agent.stop())


if __name__ == "__main__":
    unittest.main()
