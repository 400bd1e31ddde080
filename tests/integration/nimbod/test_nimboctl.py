"""nimboctl, and the status that nimbod shows it."""

import json
import os
import socket
import stat
import subprocess
import tempfile
import unittest

from daemon import NIMBOCTL, TIMEOUT, Daemon, wait_for
from wire import Client, address, frame, read

MAIN, SLOW, HANGING = 3, 4, 5
DEVICE, FAULTY = 0x50, 0x51


def nimboctl(*words, **variables):
    environment = {name: value for name, value in os.environ.items()
                   if name not in ("NM_SOCKET_DIR", "NM_SOCKET_FILE")}
    return subprocess.run([NIMBOCTL, *words], capture_output=True, text=True, timeout=TIMEOUT,
                          env={**environment, **variables})


class Status(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.daemon = Daemon()

    @classmethod
    def tearDownClass(cls):
        cls.daemon.__exit__()

    def nimboctl(self, *words):
        return nimboctl("--socket-dir", self.daemon.directory, *words)

    def test_the_document_says_whose_it_is(self):
        status = self.daemon.status()
        self.assertEqual("nimbod-status/1", status["schema"])
        self.assertEqual(self.daemon.process.pid, status["pid"])
        self.assertEqual(self.daemon.path, status["socket"])
        self.assertEqual(["hanging", "main", "slow"], [bus["name"] for bus in status["buses"]])
        self.assertEqual([5, 3, 4], [bus["number"] for bus in status["buses"]])
        self.assertTrue(all(bus["simulated"] for bus in status["buses"]))
        self.assertEqual(256, status["clients"]["limit"])

    def test_what_a_client_does_is_counted_for_it_and_for_the_bus(self):
        before = self.daemon.bus("main")
        with Client(self.daemon.path) as client:
            client.write_register(MAIN, DEVICE, 0x20, 1)  # one request
            client.read_register(MAIN, DEVICE, 0x20)  # two
            status = self.daemon.status()
            mine = [entry for entry in status["connections"] if entry["pid"] == os.getpid()]
            self.assertEqual(1, len(mine))
            self.assertEqual((os.getuid(), os.getgid()), (mine[0]["uid"], mine[0]["gid"]))
            self.assertEqual((2, 3), (mine[0]["transactions"], mine[0]["requests"]))
            self.assertEqual(1, status["clients"]["connected"])
        after = self.daemon.bus("main")
        self.assertEqual(2, after["transactions"] - before["transactions"])
        self.assertEqual(3, after["requests"] - before["requests"])
        wait_for(lambda: self.daemon.status()["connections"] == [], "the client to be gone")

    def test_a_failure_is_shown_with_its_reason(self):
        with Client(self.daemon.path) as client:
            self.assertTrue(client.call([read(address(MAIN, FAULTY, 0, 2), 4)]).failed)
        bus = self.daemon.bus("main")
        self.assertEqual(1, bus["failures"])
        self.assertIn("device 0x51", bus["last_failure"]["text"])
        self.assertRegex(bus["last_failure"]["time"],
                         r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d\d\dZ$")
        self.assertIsNone(self.daemon.bus("slow")["last_failure"])
        table = self.nimboctl("status").stdout
        self.assertIn("LAST FAILURES\n" + bus["last_failure"]["time"] + "  main: ", table)

    def test_the_table_has_a_line_for_each_bus_and_client(self):
        with Client(self.daemon.path) as client:
            client.read_register(MAIN, DEVICE, 0x10)
            done = self.nimboctl("status")
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        lines = done.stdout.splitlines()
        self.assertIn(f"process {self.daemon.process.pid}, at {self.daemon.path}, up ", lines[0])
        self.assertEqual(3, sum(line.endswith("(simulated)") for line in lines))
        self.assertTrue(any(line.split()[1:4] == [str(os.getpid()), str(os.getuid()),
                                                  str(os.getgid())] for line in lines), lines)

    def test_the_socket_is_as_the_clients_one(self):
        ours, status = os.stat(self.daemon.path), os.stat(self.daemon.path + ".status")
        self.assertTrue(stat.S_ISSOCK(status.st_mode))
        self.assertEqual((ours.st_mode, ours.st_uid, ours.st_gid),
                         (status.st_mode, status.st_uid, status.st_gid))

    def test_those_who_do_not_read_hold_up_nobody(self):
        idle = []
        for _ in range(50):
            idle.append(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
            idle[-1].connect(self.daemon.path + ".status")
        with Client(self.daemon.path) as client:
            self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))
        self.assertEqual("nimbod-status/1", self.daemon.status()["schema"])
        for one in idle:
            one.close()


class Circumstances(unittest.TestCase):
    def test_a_bus_that_hangs_shows_with_those_who_wait(self):
        with Daemon() as daemon, Client(daemon.path) as first, Client(daemon.path) as second:
            for client in (first, second):
                client.send(frame(1, [read(address(HANGING, DEVICE, 0, 2), 4)]))
            daemon.await_busy("hanging", waiting=1)
            self.assertEqual(1, daemon.bus("hanging")["waiting"])
            self.assertIsNone(daemon.bus("main")["busy_seconds"])

    def test_the_status_socket_goes_with_the_daemon(self):
        with Daemon() as daemon:
            self.assertEqual(0, daemon.stop())
            self.assertFalse(os.path.exists(daemon.path + ".status"))
            done = nimboctl("status", "--socket-dir", daemon.directory)
            self.assertEqual((1, ""), (done.returncode, done.stdout))
            self.assertEqual(f"nimboctl: error: {daemon.path}.status: no daemon is there\n",
                             done.stderr)

    def test_after_a_kill_there_is_nobody_and_the_next_daemon_takes_over(self):
        with Daemon() as daemon:
            daemon.kill()
            self.assertEqual(1, nimboctl("status", "--socket-dir", daemon.directory).returncode)
            daemon.start()
            self.assertEqual(daemon.process.pid, daemon.status()["pid"])

    def test_the_daemon_is_found_through_the_environment_as_well(self):
        with Daemon("--socket-file", "other", start=False) as daemon:
            daemon.start()
            done = nimboctl("status", "--json", NM_SOCKET_DIR=daemon.directory,
                            NM_SOCKET_FILE="other")
            self.assertEqual(0, done.returncode, done.stderr)
            self.assertEqual(daemon.process.pid, json.loads(done.stdout)["pid"])

    def test_who_is_not_on_the_list_gets_no_status_either(self):
        with Daemon(settings='allow_users = ["nobody"]\nsocket_mode = "0666"') as daemon:
            done = nimboctl("status", "--socket-dir", daemon.directory)
            self.assertEqual((1, ""), (done.returncode, done.stdout))
            self.assertIn("the daemon says nothing: its log has the reason", done.stderr)
            wait_for(lambda: daemon.says(f"Refused uid {os.getuid()}"), "the refusal")

    def test_without_a_place_for_the_status_the_buses_are_served(self):
        with Daemon(start=False) as daemon:
            place = daemon.path + ".status"
            with open(place, "w", encoding="utf-8") as file:
                file.write("precious")
            daemon.start()
            self.assertTrue(daemon.says(
                f"There will be no status: {place}: is there already, and is no socket"))
            with Client(daemon.path) as client:
                self.assertEqual(42, client.read_register(MAIN, DEVICE, 0x10))
            self.assertEqual(0, daemon.stop())
            with open(place, encoding="utf-8") as file:
                self.assertEqual("precious", file.read())

    def test_after_a_reload_the_buses_are_those_of_now(self):
        with Daemon() as daemon:
            with Client(daemon.path) as client:
                client.read_register(MAIN, DEVICE, 0x10)
            with open(daemon.config, encoding="utf-8") as file:
                text = file.read()
            daemon.configure(text.replace("[nimbod]", "").replace("buses.slow", "buses.late"))
            daemon.signal(1)
            wait_for(lambda: "late" in [bus["name"] for bus in daemon.status()["buses"]],
                     "the new bus")
            self.assertEqual(["hanging", "late", "main"],
                             [bus["name"] for bus in daemon.status()["buses"]])
            self.assertEqual(1, daemon.bus("main")["transactions"], "what stays goes on counting")

    def test_wrong_use_is_no_failure_of_the_daemon(self):
        for words in ((), ("restart",), ("status", "--nonsense")):
            done = nimboctl(*words)
            self.assertEqual((2, ""), (done.returncode, done.stdout), words)
            self.assertRegex(done.stderr, "Run nimboctl (status )?--help")

    def test_a_silent_daemon_is_not_waited_for_for_ever(self):
        with tempfile.TemporaryDirectory() as directory, \
                socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as silent:
            silent.bind(os.path.join(directory, "smbus.status"))
            silent.listen(1)
            done = nimboctl("status", "--socket-dir", directory)
            self.assertEqual(1, done.returncode)
            self.assertIn("the daemon does not answer", done.stderr)


if __name__ == "__main__":
    unittest.main(verbosity=2)
