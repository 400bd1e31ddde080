"""nimbod as a process, with clients that know the protocol only from its description."""

import os
import signal
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.request

from daemon import BOARD, NIMBOD, TIMEOUT, Daemon, free_port, wait_for
from wire import (Client, address, frame, header, read, read_register, write, write_register)

MAIN, SLOW, HANGING = 3, 4, 5
DEVICE, FAULTY = 0x50, 0x51


class Serving(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.daemon = Daemon()

    @classmethod
    def tearDownClass(cls):
        cls.daemon.__exit__()

    def client(self):
        client = Client(self.daemon.path)
        self.addCleanup(client.socket.close)
        return client

    def test_a_register_is_read_and_written(self):
        client = self.client()
        self.assertEqual(0xDEADBEEF, client.read_register(MAIN, DEVICE, 0x1234))
        client.write_register(MAIN, DEVICE, 0x20, 0x01020304)
        self.assertEqual(0x01020304, client.read_register(MAIN, DEVICE, 0x20))
        self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))

    def test_each_request_has_its_response_and_a_write_an_empty_one(self):
        response = self.client().call(read_register(MAIN, DEVICE, 0x1234))
        self.assertFalse(response.failed)
        self.assertEqual("", response.error)
        self.assertEqual([b"", b"\xde\xad\xbe\xef"], response.data)

    def test_offset_bytes_go_out_most_significant_first(self):
        client = self.client()
        # All of them set the 16-bit pointer, and what is left of the offset is stored.
        for offset, offset_bytes, data, register, value in (
            (0x30, 1, b"\x00\x01\x02\x03\x04", 0x3000, 0x01020304),
            (0x3100, 2, b"\x05\x06\x07\x08", 0x3100, 0x05060708),
            (0x32000910, 4, b"\x11\x12", 0x3200, 0x09101112),
        ):
            where = address(MAIN, DEVICE, offset, offset_bytes)
            self.assertFalse(client.call([write(where, data)]).failed)
            self.assertEqual(value, client.read_register(MAIN, DEVICE, register))

    def test_a_read_of_its_own_reads_at_its_offset(self):
        response = self.client().call([read(address(MAIN, DEVICE, 0x1234, 2), 4)])
        self.assertEqual([b"\xde\xad\xbe\xef"], response.data)

    def test_an_empty_transaction_is_answered(self):
        response = self.client().call([])
        self.assertFalse(response.failed)
        self.assertEqual([], response.data)

    def test_a_failure_names_the_request_and_ends_the_transaction(self):
        client = self.client()
        client.write_register(MAIN, DEVICE, 0x40, 1)
        response = client.call(
            read_register(MAIN, DEVICE, 0x1234)
            + read_register(MAIN, FAULTY, 0x10)
            + write_register(MAIN, DEVICE, 0x40, 2))
        self.assertTrue(response.failed)
        self.assertEqual(
            "request 4 of 5 (read of 4 bytes, bus 3 'main', device 0x51, offset 0x0): "
            "No such device or address (6)", response.error)
        self.assertEqual([b"", b"\xde\xad\xbe\xef", b""], response.data)
        self.assertEqual(1, client.read_register(MAIN, DEVICE, 0x40))

    def test_what_can_be_refused_is_refused_before_anything_is_done(self):
        client = self.client()
        client.write_register(MAIN, DEVICE, 0x50, 1)
        good = write_register(MAIN, DEVICE, 0x50, 2)
        for bad, why in (
            (read(address(77, DEVICE), 4), "there is no such bus"),
            (read(address(MAIN, DEVICE), 0), "a read takes 1 to 8192 bytes, not 0"),
            (read(address(MAIN, DEVICE), 8193), "a read takes 1 to 8192 bytes, not 8193"),
            (read(DEVICE << 32, 4), "exactly one of the bits 57 to 59 must be set"),
            (read(address(MAIN, DEVICE) | 1 << 58, 4), "exactly one of the bits 57 to 59 must be set"),
            (read(address(MAIN, DEVICE) | 1 << 60, 4), "bits 60 to 63 must be 0"),
            (read(address(MAIN, DEVICE, 0x100, 1), 4), "offset 0x100 does not fit in 1 byte"),
            (read(address(MAIN, DEVICE), 4, master=9), "master type 9 is not known"),
        ):
            response = client.call(good + [bad])
            self.assertTrue(response.failed)
            self.assertTrue(response.error.startswith("request 2 of 2 ("), response.error)
            self.assertTrue(response.error.endswith(why), response.error)
            self.assertEqual([], response.data)
            self.assertEqual(1, client.read_register(MAIN, DEVICE, 0x50))

    def test_transactions_sent_at_once_are_answered_in_order(self):
        client = self.client()
        client.send(b"".join(
            frame(xid, write_register(MAIN, DEVICE, 0x60, xid) if xid % 3 else [])
            for xid in range(1, 501)))
        for xid in range(1, 501):
            self.assertEqual(xid, client.receive().xid)
        self.assertEqual(500, client.read_register(MAIN, DEVICE, 0x60))

    def test_a_frame_may_come_in_pieces(self):
        client = self.client()
        for byte in frame(7, read_register(MAIN, DEVICE, 0x1234)):
            client.send(bytes([byte]))
        self.assertEqual(b"\xde\xad\xbe\xef", client.receive().data[1])

    def test_a_client_that_has_said_its_last_word_is_answered(self):
        client = self.client()
        client.send(frame(7, read_register(MAIN, DEVICE, 0x1234)))
        client.socket.shutdown(socket.SHUT_WR)
        self.assertEqual(b"\xde\xad\xbe\xef", client.receive().data[1])
        self.assertTrue(client.is_closed())

    def test_what_is_no_request_ends_the_connection_and_only_that(self):
        other = self.client()
        for data, why in (
            (frame(1, [], kind=2), "a frame of kind 2 instead of 1"),
            (b"GET / HTTP/1.1\r\n\r\n", "a frame of kind 71 instead of 1"),
            (header(1, 0xFFFFFF), "a frame of 16777215 bytes; at most 65535 are possible"),
            (header(1, 0x10000), "a frame of 65536 bytes; at most 65535 are possible"),
            (header(1, 3) + b"\xff\xff\xff", "a frame whose message cannot be read"),
        ):
            client = self.client()
            client.write_register(MAIN, DEVICE, 0x70, 1)
            client.send(data)
            self.assertTrue(client.is_closed())
            wait_for(lambda why=why: self.daemon.says(why), why)
            self.assertEqual(1, other.read_register(MAIN, DEVICE, 0x70))

    def test_a_slow_bus_holds_up_nobody_else(self):
        slow = [self.client() for _ in range(4)]
        hanging = [self.client() for _ in range(4)]
        for client in hanging:
            client.send(frame(1, read_register(HANGING, DEVICE, 0x10)))
        for client in slow:
            client.send(frame(1, read_register(SLOW, DEVICE, 0x10)))
        self.daemon.await_busy("hanging", waiting=3)
        client = self.client()
        for _ in range(200):
            self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))
        for each in slow:
            self.assertFalse(each.receive().failed)

    def test_a_transaction_may_go_over_several_buses(self):
        response = self.client().call(
            read_register(MAIN, DEVICE, 0x1234) + read_register(SLOW, DEVICE, 0x10)
            + read_register(MAIN, DEVICE, 0x10))
        self.assertFalse(response.failed, response.error)
        self.assertEqual([b"", b"\xde\xad\xbe\xef", b"", bytes(4), b"", b"\0\0\0\x2a"],
                         response.data)

    def test_64_clients_at_once_each_see_their_own_values(self):
        failures = []

        def use(number):
            try:
                with Client(self.daemon.path) as client:
                    register = 0x8000 + 4 * number
                    for turn in range(40):
                        client.write_register(MAIN, DEVICE, register, number << 16 | turn)
                        value = client.read_register(MAIN, DEVICE, register)
                        if value != number << 16 | turn:
                            failures.append((number, turn, value))
            except Exception as error:  # pylint: disable=broad-except
                failures.append((number, repr(error)))

        threads = [threading.Thread(target=use, args=(n,)) for n in range(64)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([], failures)

    def test_a_client_that_does_not_read_makes_nothing_grow(self):
        client = self.client()
        request = frame(1, [read(address(MAIN, DEVICE), 8192)] * 8)
        client.socket.setblocking(False)
        before = None
        sent = bytearray()
        waiting = 0
        while waiting < 50:
            try:
                if not sent:
                    sent += request
                del sent[: client.socket.send(sent)]
                waiting = 0
            except BlockingIOError:
                # Both directions are full, or soon will be.
                waiting += 1
                self.client().read_register(MAIN, DEVICE, 0x10)
            if before is None:
                before = self.daemon.status_field("VmRSS")
        if "SANITIZED" not in os.environ:
            self.assertLess(self.daemon.status_field("VmRSS"), before + 4096)
        # Nothing is lost: once the client reads, everything comes.
        client.socket.settimeout(TIMEOUT)
        first = client.receive()
        self.assertEqual([8192] * 8, [len(data) for data in first.data])

    def test_clients_killed_in_the_middle_leave_nothing_behind(self):
        with Client(self.daemon.path) as client:
            client.read_register(MAIN, DEVICE, 0x10)
        descriptors = self.daemon.descriptors()
        code = ("import sys, time; from wire import *; c = Client(sys.argv[1]); "
                "c.send(frame(1, read_register(4, 0x50, 0x10)) + frame(2, [])[:3]); "
                "print('sent', flush=True); time.sleep(1000)")
        children = [
            subprocess.Popen([sys.executable, "-c", code, self.daemon.path],
                             cwd=os.path.dirname(__file__), stdout=subprocess.PIPE)
            for _ in range(3)]
        for child in children:
            self.assertEqual(b"sent\n", child.stdout.readline())
            child.kill()
            child.wait()
            child.stdout.close()
        wait_for(lambda: self.daemon.descriptors() <= descriptors, "the connections to be closed")
        self.assertEqual(42, self.client().read_register(MAIN, DEVICE, 0x10))


class Life(unittest.TestCase):
    def client(self, daemon):
        client = Client(daemon.path)
        self.addCleanup(client.socket.close)
        return client

    def test_killed_and_started_again_it_serves_new_clients(self):
        with Daemon() as daemon:
            old = self.client(daemon)
            old.write_register(MAIN, DEVICE, 0x10, 7)
            daemon.kill()
            self.assertTrue(stat.S_ISSOCK(os.stat(daemon.path).st_mode))
            daemon.start()
            with Client(daemon.path) as client:
                self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))
            self.assertTrue(old.is_closed())

    def test_a_second_daemon_does_not_take_the_first_ones_place(self):
        with Daemon() as daemon:
            second = Daemon(directory=daemon.directory, start=False)
            second.launch()
            self.assertEqual(1, second.wait())
            with Client(daemon.path) as client:
                self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))

    def test_told_to_end_it_finishes_what_has_begun(self):
        # Long enough for a loaded machine to see the second one wait.
        with Daemon(board=BOARD.replace("delay_us = 400_000", "delay_us = 3_000_000"),
                    settings="stop_timeout_ms = 100000") as daemon:
            idle = self.client(daemon)
            busy = self.client(daemon)
            queued = self.client(daemon)
            for client in (busy, queued):
                client.send(frame(1, [read(address(SLOW, DEVICE), 4)]))
            daemon.await_busy("slow", waiting=1)
            daemon.signal(signal.SIGTERM)
            for client in (busy, queued):
                self.assertEqual([bytes(4)], client.receive().data)
            for client in (busy, queued, idle):
                self.assertTrue(client.is_closed())
            self.assertEqual(0, daemon.wait())
            self.assertFalse(os.path.exists(daemon.path))

    def test_an_interrupt_ends_it_too(self):
        with Daemon() as daemon:
            daemon.signal(signal.SIGINT)
            self.assertEqual(0, daemon.wait())
            self.assertFalse(os.path.exists(daemon.path))

    def test_told_to_end_it_does_not_wait_for_ever(self):
        with Daemon(settings="stop_timeout_ms = 100") as daemon:
            client = self.client(daemon)
            client.send(frame(1, read_register(HANGING, DEVICE, 0x10)))
            daemon.await_busy("hanging")
            self.assertEqual(1, daemon.stop())
            self.assertTrue(daemon.says("Bus 'hanging' is still at work"), daemon.log())
            self.assertFalse(os.path.exists(daemon.path))

    def test_told_twice_it_ends_at_once(self):
        with Daemon(settings="stop_timeout_ms = 1000000") as daemon:
            client = self.client(daemon)
            client.send(frame(1, read_register(HANGING, DEVICE, 0x10)))
            daemon.await_busy("hanging")
            daemon.signal(signal.SIGTERM)
            wait_for(lambda: daemon.says("Told to end"), "the first signal")
            self.assertIsNone(daemon.process.poll())
            self.assertEqual(1, daemon.stop())
            self.assertTrue(daemon.says("Bus 'hanging' is still at work, 0 wait for it"),
                            daemon.log())
            self.assertTrue(daemon.says("Ending before all is finished: told to end twice"),
                            daemon.log())
            self.assertFalse(daemon.says("the time for that is over"), daemon.log())
            self.assertEqual(1, daemon.log().count("Told to end"), daemon.log())
            self.assertFalse(os.path.exists(daemon.path))
            self.assertTrue(client.is_closed(), "without an answer")

    def test_told_to_look_again_while_it_ends_it_does_not(self):
        with Daemon(settings="stop_timeout_ms = 1000000") as daemon:
            client = self.client(daemon)
            client.send(frame(1, read_register(HANGING, DEVICE, 0x10)))
            daemon.await_busy("hanging")
            daemon.signal(signal.SIGTERM)
            wait_for(lambda: daemon.says("Told to end"), "the first signal")
            daemon.signal(signal.SIGHUP)
            self.assertEqual(1, daemon.stop())
            self.assertFalse(daemon.says("Read the configuration again"), daemon.log())

    def test_told_to_look_again_it_serves_the_buses_that_there_are_now(self):
        with Daemon() as daemon, Client(daemon.path) as client:
            client.write_register(MAIN, DEVICE, 0x20, 5)
            other = BOARD.replace('[nimbod.buses.slow]\nnumber = 4', '[nimbod.buses.slow]\nnumber = 6')
            daemon.configure(other)
            daemon.signal(signal.SIGHUP)
            wait_for(lambda: daemon.says("Read the configuration again"), "the new buses")
            self.assertTrue(client.call(read_register(4, DEVICE, 0)).error.endswith("no such bus"))
            self.assertFalse(client.call(read_register(6, DEVICE, 0)).failed)
            # The others have stayed what they were, as has the connection.
            self.assertEqual(5, client.read_register(MAIN, DEVICE, 0x20))

    def test_a_wrong_configuration_changes_nothing(self):
        with Daemon() as daemon, Client(daemon.path) as client:
            daemon.configure(BOARD + "\n[nimbod.buses.more]\nnumber = 9\ndevice = \"/dev/i2c-9\"\ndevise = 1\n")
            daemon.signal(signal.SIGHUP)
            wait_for(lambda: daemon.says("The buses stay as they were"), "the refusal")
            self.assertTrue(daemon.says("devise"), daemon.log())
            self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))

    def test_only_those_on_the_list_are_served(self):
        with Daemon(settings='allow_users = ["nobody"]\nsocket_mode = "0666"') as daemon:
            with Client(daemon.path) as client:
                self.assertTrue(client.is_closed())
            wait_for(lambda: daemon.says(f"Refused uid {os.getuid()}"), "the refusal")
        with Daemon(settings=f"allow_users = [{os.getuid()}]") as daemon:
            with Client(daemon.path) as client:
                self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))

    def test_there_are_no_more_connections_than_allowed(self):
        with Daemon(settings="max_connections = 2") as daemon:
            first, second = self.client(daemon), self.client(daemon)
            for client in (first, second):
                self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))
            with Client(daemon.path) as third:
                self.assertTrue(third.is_closed())
            first.socket.close()
            wait_for(lambda: self.is_served(daemon), "room for another")
            self.assertEqual(42, second.read_register(MAIN, DEVICE, 0x10))

    @staticmethod
    def is_served(daemon):
        try:
            with Client(daemon.path) as client:
                return client.read_register(MAIN, DEVICE, 0x10) == 42
        except (EOFError, ConnectionError):
            return False

    def test_its_metrics_count_what_each_bus_does(self):
        port = free_port()
        with Daemon("--metrics", f"127.0.0.1:{port}") as daemon, Client(daemon.path) as client:
            for _ in range(3):
                client.read_register(MAIN, DEVICE, 0x10)
            client.call(read_register(MAIN, FAULTY, 0x10))
            with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=TIMEOUT) as page:
                text = page.read().decode()
            for line in (
                'nimbod_bus_transactions_total{bus="main"} 4',
                'nimbod_bus_requests_total{bus="main"} 8',
                'nimbod_bus_failures_total{bus="main"} 1',
                'nimbod_bus_latency_seconds_count{bus="main"} 4',
                'nimbod_bus_transactions_total{bus="slow"} 0',
                "nimbod_connections_total 1",
            ):
                self.assertIn(line, text)

    def test_it_takes_the_socket_that_a_service_manager_made(self):
        with Daemon(start=False) as daemon:
            listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            path = os.path.join(daemon.directory, "made")
            listener.bind(path)
            listener.listen(5)
            daemon.wrapper = (
                "/bin/sh", "-c",
                f'exec 3<&{listener.fileno()}; LISTEN_PID=$$ LISTEN_FDS=1 exec "$@"', "sh")
            daemon.popen = {"pass_fds": (listener.fileno(),)}
            daemon.start()
            with Client(path) as client:
                self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))
            self.assertEqual(0, daemon.stop())
            self.assertTrue(os.path.exists(path))
            listener.close()

    def test_a_request_says_which_controller_and_function_when_there_are_several(self):
        board = """
[simulate.i2c.a]
bus = "/dev/i2c-1"
address = 0x50
kind = "block"
values = { 0x10 = 1 }
[simulate.i2c.b]
bus = "/dev/i2c-2"
address = 0x50
kind = "block"
values = { 0x10 = 2 }
[simulate.i2c.c]
bus = "/dev/i2c-3"
address = 0x50
kind = "block"
values = { 0x10 = 3 }
[nimbod.buses.a]
number = 0
device = "/dev/i2c-1"
simulate = true
[nimbod.buses.b]
number = 0
device = "/dev/i2c-2"
simulate = true
controller = 5
[nimbod.buses.c]
number = 0
device = "/dev/i2c-3"
simulate = true
controller = 5
pci = "0001:02:03.4"
"""
        function = 1 << 16 | 2 << 8 | 3 << 3 | 4
        with Daemon(board=board) as daemon, Client(daemon.path) as client:
            for controller, pci, expected in (
                (0, 0, 1), (5, 0, 2), (5, function, 3), (0, function, 1), (5, 1, 2), (6, 0, 1)):
                response = client.call([
                    write(address(0, DEVICE, 0, controller=controller), b"\x10", pci=pci),
                    read(address(0, DEVICE, controller=controller), 4, pci=pci)])
                self.assertEqual(expected, struct.unpack(">I", response.data[1])[0])

    def test_a_configuration_can_be_checked_without_serving(self):
        with Daemon(start=False) as daemon:
            done = subprocess.run([NIMBOD, "--config", daemon.config, "--check"], check=False,
                                  capture_output=True, text=True, timeout=TIMEOUT)
            self.assertEqual((0, ""), (done.returncode, done.stderr))
            daemon.configure(settings="socket_mod = 1")
            done = subprocess.run([NIMBOD, "--config", daemon.config, "--check"], check=False,
                                  capture_output=True, text=True, timeout=TIMEOUT)
            self.assertEqual(1, done.returncode)
            self.assertIn(f"{daemon.config}:2:", done.stderr)


class RealBuses(unittest.TestCase):
    """Over device nodes, as tarnsim makes them."""

    board = """
[simulate.i2c.device]
bus = "/dev/i2c-3"
address = 0x50
kind = "block"
values = { 0x1234 = 0xdeadbeef, 0x20 = 0x01020304, 0x40 = 0x0badcafe }
"""

    def run_under_tarnsim(self, *command):
        with tempfile.TemporaryDirectory() as directory:
            board = os.path.join(directory, "b.toml")
            with open(board, "w", encoding="utf-8") as file:
                file.write(self.board)
            registers = os.path.join(directory, "r.csv")
            with open(registers, "w", encoding="utf-8") as file:
                file.write("number,name,type,writeable,width\n64,OWN,cfg,true,32\n48,WRITTEN,cfg,true,32\n")
            return subprocess.run(
                [os.environ["TARNSIM"], "--board", board, "--", *command, registers],
                cwd=os.path.dirname(os.path.abspath(__file__)), check=False, capture_output=True,
                text=True, timeout=600)

    def test_the_daemon_and_programs_that_use_the_bus_share_a_device(self):
        done = self.run_under_tarnsim(sys.executable, "-B", "shared_device.py")
        self.assertEqual((0, "[]\n"), (done.returncode, done.stdout), done.stderr)

    def test_a_bus_that_is_not_there_yet_needs_no_restart(self):
        with Daemon(start=False) as daemon, tempfile.TemporaryDirectory() as directory:
            node = os.path.join(directory, "i2c-9")
            daemon.configure(f'[nimbod.buses.late]\nnumber = 9\ndevice = "{node}"\n')
            daemon.start()
            with Client(daemon.path) as client:
                error = client.call(read_register(9, DEVICE, 0)).error
                self.assertTrue(error.endswith(f"cannot open {node}: No such file or directory"),
                                error)
                # An ordinary file is none either, but is opened.
                open(node, "w", encoding="utf-8").close()
                error = client.call(read_register(9, DEVICE, 0)).error
                self.assertTrue(
                    error.endswith(f"cannot use {node} as an I2C bus: "
                                   "Inappropriate ioctl for device"), error)


if __name__ == "__main__":
    unittest.main(verbosity=2)
