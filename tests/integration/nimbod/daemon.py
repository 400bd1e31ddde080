"""nimbod as a process, for tests."""

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

NIMBOD = os.environ["NIMBOD"]
NIMBOCTL = os.environ["NIMBOCTL"]
TIMEOUT = 120

BOARD = """
[simulate.i2c.main]
bus = "/dev/i2c-3"
address = 0x50
kind = "block"
values = { 0x1234 = 0xdeadbeef, 0x10 = 42 }

[simulate.i2c.faulty]
bus = "/dev/i2c-3"
address = 0x51
kind = "block"
faults = [ { kind = "nak", direction = "read" } ]

[simulate.i2c.slow]
bus = "/dev/i2c-4"
address = 0x50
kind = "block"
delay_us = 400_000

[simulate.i2c.hanging]
bus = "/dev/i2c-5"
address = 0x50
kind = "block"
delay_us = 3_600_000_000

[nimbod.buses.main]
number = 3
device = "/dev/i2c-3"
simulate = true

[nimbod.buses.slow]
number = 4
device = "/dev/i2c-4"
simulate = true

[nimbod.buses.hanging]
number = 5
device = "/dev/i2c-5"
simulate = true
"""


def wait_for(condition, what):
    end = time.monotonic() + TIMEOUT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"waited in vain for {what}")
        time.sleep(0.005)


class Daemon:
    """Runs nimbod, by default on the simulated BOARD, with its socket in a directory of its own."""

    def __init__(self, *options, board=BOARD, settings="", wrapper=(), directory=None, start=True,
                 **popen):
        self.own = directory is None
        self.directory = directory or tempfile.mkdtemp(prefix="nimbod-")
        self.config = os.path.join(self.directory, "board.toml")
        self.path = os.path.join(self.directory, "smbus")
        self.configure(board, settings)
        self.options = options
        self.wrapper = wrapper
        self.popen = popen
        self.lines = []
        self.process = None
        if start:
            self.start()

    def configure(self, board=BOARD, settings=""):
        # In one step, as an editor would.
        with open(self.config + ".new", "w", encoding="utf-8") as file:
            file.write(f"[nimbod]\n{settings}\n{board}")
        os.rename(self.config + ".new", self.config)

    def start(self):
        self.launch()
        wait_for(lambda: self.says("Serving") or self.process.poll() is not None, "the daemon")
        if self.process.poll() is not None:
            raise AssertionError("nimbod ended:\n" + self.log())

    def launch(self):
        self.lines = []
        self.process = subprocess.Popen(
            [*self.wrapper, NIMBOD, "--config", self.config, "--socket-dir", self.directory,
             *self.options],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
            **self.popen)
        self.reader = threading.Thread(target=self._read, args=(self.process.stderr, self.lines))
        self.reader.start()

    @staticmethod
    def _read(stream, lines):
        for line in stream:
            lines.append(line)

    def log(self):
        return "".join(self.lines)

    def says(self, text):
        return text in self.log()

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self):
        code = self.process.wait(TIMEOUT)
        self.reader.join(TIMEOUT)
        self.process.stderr.close()
        return code

    def kill(self):
        self.signal(signal.SIGKILL)
        return self.wait()

    def stop(self):
        self.signal(signal.SIGTERM)
        return self.wait()

    def status_field(self, name):
        with open(f"/proc/{self.process.pid}/status", encoding="utf-8") as file:
            for line in file:
                if line.startswith(name + ":"):
                    return int(line.split()[1])
        raise KeyError(name)

    def status(self):
        done = subprocess.run([NIMBOCTL, "--socket-dir", self.directory, "--json", "status"],
                              check=True, capture_output=True, text=True, timeout=TIMEOUT)
        return json.loads(done.stdout)

    def bus(self, name):
        return next(bus for bus in self.status()["buses"] if bus["name"] == name)

    def await_busy(self, name, waiting=0):
        """Until a transaction is under way on a bus and so many wait behind it."""
        wait_for(lambda: (self.bus(name)["busy_seconds"] is not None
                          and self.bus(name)["waiting"] >= waiting), f"bus {name} to be busy")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process and self.process.poll() is None:
            self.kill()
        if self.own:
            shutil.rmtree(self.directory)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
