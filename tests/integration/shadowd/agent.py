"""tarn-shadowd as a process, for tests."""

import os
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

SHADOWD = os.environ["SHADOWD"]
CLIENT = os.environ["SHADOW_CLIENT"]
TARNSIM = os.environ["TARNSIM"]
TARNREG = os.environ["TARNREG"]
TIMEOUT = int(os.environ.get("SHADOWD_PATIENCE", "120"))

LIST = """number,name,type,writeable,width
0,ID,id,false,32
4,CTRL,control,true,32
8,SCRATCH,control,true,32
"""


def wait_for(condition, what):
    end = time.monotonic() + TIMEOUT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"waited in vain for {what}")
        time.sleep(0.005)


class Agent:
    """One run of tarn-shadowd."""

    def __init__(self, case, *options, wrapper=(), settings=None, user=None, group=None):
        self.lines = []
        self.process = subprocess.Popen(
            [*wrapper, SHADOWD, "--board", case.board, *options], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
            env={**case.env, **(settings or {})}, user=user, group=group,
            extra_groups=None if user is None else [])
        self.reader = threading.Thread(target=self._read)
        self.reader.start()
        case.addCleanup(self.kill)

    def _read(self):
        for line in self.process.stderr:
            self.lines.append(line)

    def log(self):
        return "".join(self.lines)

    def says(self, text):
        return text in self.log()

    def wait(self):
        code = self.process.wait(TIMEOUT)
        self.reader.join(TIMEOUT)
        self.process.stderr.close()
        return code

    def signal(self, number):
        self.process.send_signal(number)

    def kill(self):
        if self.process.poll() is None:
            self.signal(signal.SIGKILL)
            self.wait()
        elif not self.process.stderr.closed:
            self.wait()

    def stop(self):
        self.signal(signal.SIGTERM)
        return self.wait()


class Case(unittest.TestCase):
    """A board and a table directory of the test's own."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="shadowd-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.env = {name: value for name, value in os.environ.items()
                    if name not in ("TARN_TRACE", "NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID",
                                    "REG_VALUES_FILE")}
        self.env["TARN_TABLE_DIR"] = self.path("tables")
        self.write("list.csv", LIST)

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, content):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(content)
        return self.path(name)

    def client(self, *arguments):
        done = subprocess.run([CLIENT, *(str(each) for each in arguments)], env=self.env,
                              capture_output=True, text=True, timeout=TIMEOUT, check=False)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        return done.stdout

    def state(self, core="fpga"):
        return dict(line.split("=", 1) for line in self.client("state", core).splitlines())

    def registers(self, table="fpga/status"):
        return self.client("show", table).split()

    def ordered(self, table="fpga/ops-status"):
        return self.client("ordered", table).splitlines()

    def await_state(self, core="fpga", **fields):
        wanted = {name: str(value) for name, value in fields.items()}
        seen = {}

        def is_so():
            seen.clear()
            seen.update(self.state(core))
            return all(seen.get(name) == value for name, value in wanted.items())

        try:
            wait_for(is_so, f"{wanted}")
        except AssertionError as error:
            raise AssertionError(f"{error}; it is {seen}") from error
        return dict(seen)

    def await_registers(self, *wanted, table="fpga/status"):
        wait_for(lambda: set(wanted) <= set(self.registers(table)), f"{wanted} in {table}")

    def tarnreg(self, *arguments):
        """Runs the command; its exit code, what it printed and what it said."""
        done = self.tarnreg_start(*arguments)
        out, err = done.communicate(timeout=TIMEOUT)
        return done.returncode, out, err

    def tarnreg_start(self, *arguments):
        process = subprocess.Popen(
            [TARNREG, "--board", self.board, *(str(each) for each in arguments)], env=self.env,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.wait, TIMEOUT)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.kill)
        return process


SIMULATED_BOARD = """
[devices.fpga]
list = "list.csv"
transport = "{transport}"

[shadow]
cores = ["fpga"]
retry_first_ms = 20
retry_most_ms = 50
check_interval_ms = {check}

[simulate.i2c.chip]
bus = "/dev/i2c-3"
address = 0x50
kind = "block"
values = {{ 0 = 0x1d, 4 = 0xc, 8 = 0x5 }}
present = {present}
{faults}
"""


class Simulated(Case):
    """An agent whose device is a simulated one, which goes, comes back and fails on demand."""

    transport = "i2c:/dev/i2c-3@0x50"

    def start(self, check=20, present="true", faults=""):
        self.board = self.write("board.toml", SIMULATED_BOARD.format(transport=self.transport, check=check,
                                                           present=present, faults=faults))
        self.socket = self.path("control")
        self.agent = Agent(self, wrapper=(TARNSIM, "--board", self.board, "--control", self.socket,
                                          "--"))
        wait_for(lambda: self.agent.says("Serving") or self.agent.process.poll() is not None,
                 "the agent")
        self.assertIsNone(self.agent.process.poll(), self.agent.log())

    def sim(self, *words):
        done = subprocess.run([TARNSIM, "control", self.socket, *words], capture_output=True,
                              text=True, timeout=TIMEOUT, check=False)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        return done.stdout

    def journal(self, kind):
        return [line for line in self.sim("journal", "chip").splitlines() if line.startswith(kind)]
