"""What the cases share: programs to run, buses and devices to find."""

import glob
import os
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

from host import SETTING

BIN = SETTING["bin"]
TARNREG = os.path.join(BIN, "tarnreg")
NIMBOD = os.path.join(BIN, "nimbod")
SHADOWD = os.path.join(BIN, "tarn-shadowd")
CLIENT = os.path.join(BIN, "vm_register_client")
SHADOW_CLIENT = os.path.join(BIN, "shadow_client")
HEADER = "number,name,type,writeable,width\n"

# An emulated processor on a loaded machine: only what hangs runs into this.
TIMEOUT = 300

PROGRAM_ERROR, USAGE, UNKNOWN_NAME, REFUSED, DEVICE_ERROR, TIMED_OUT = 1, 2, 3, 4, 5, 6


class Done:
    """How a program ended."""

    def __init__(self, done):
        self.code = done.returncode
        self.out = done.stdout
        self.err = done.stderr

    def __repr__(self):
        return f"exit code {self.code}\n{self.out}{self.err}"


def run(*command, **options):
    return Done(subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                               capture_output=True, text=True, timeout=TIMEOUT, check=False,
                               **options))


def put(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def wait_for(condition, what):
    end = time.monotonic() + TIMEOUT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"waited in vain for {what}")
        time.sleep(0.02)


def bus(adapter):
    """The number of the I2C bus whose adapter's name has these words in it."""
    for name in glob.glob("/sys/class/i2c-adapter/i2c-*/name"):
        with open(name, encoding="ascii") as file:
            if adapter in file.read():
                return int(name.split("/")[-2].removeprefix("i2c-"))
    raise AssertionError(f"no I2C bus of {adapter}")


class Case(unittest.TestCase):
    """A case with a directory of its own."""

    maxDiff = None

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="case-", dir="/run")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, content):
        put(self.path(name), content)
        return self.path(name)

    def succeed(self, *command, **options):
        """What a program prints that has to succeed and say nothing."""
        done = run(*command, **options)
        self.assertEqual((0, ""), (done.code, done.err), f"{command}: {done}")
        return done.out

    def tarnreg(self, registers, transport, *arguments):
        """What tarnreg prints; it has to succeed. `registers` is the list's path."""
        return self.succeed(TARNREG, "--file", registers, "--transport", transport, *arguments)

    def tarnreg_fails(self, registers, transport, *arguments, code=DEVICE_ERROR):
        """What tarnreg says on standard error; it has to fail, and to print no value."""
        done = run(TARNREG, "--file", registers, "--transport", transport, *arguments)
        self.assertEqual((code, ""), (done.code, done.out), f"{arguments}: {done}")
        return done.err

    def values(self, registers, transport, *names):
        """What tarnreg reads, by name."""
        lines = self.tarnreg(registers, transport, "read", *names).splitlines()
        return {name: int(value, 16) for name, value in (line.split() for line in lines)}


def load(module, *options):
    done = run("modprobe", module, *options)
    if done.code != 0:
        raise AssertionError(f"modprobe {module}: {done}")


STUB_CHIPS = (0x50, 0x51, 0x52, 0x55)


def load_stub():
    """The kernel's model of chips; all cases share one, which cannot be loaded twice."""
    load("i2c-dev")
    load("i2c-stub", "chip_addr=" + ",".join(map(hex, STUB_CHIPS)))


class Driver:
    """A driver of the kernel that has a chip, for as long as the context lasts."""

    def __init__(self, number, module, chip):
        self.folder = f"/sys/bus/i2c/devices/i2c-{number}"
        self.driver = f"/sys/bus/i2c/devices/{number}-{chip:04x}/driver"
        self.module, self.chip = module, chip

    def __enter__(self):
        load(self.module)
        put(f"{self.folder}/new_device", f"{self.module} {self.chip:#x}")
        wait_for(lambda: os.path.exists(self.driver), f"{self.module} to take {self.chip:#x}")
        return self

    def goes(self):
        """Also before the end of the context."""
        if os.path.exists(self.driver):
            put(f"{self.folder}/delete_device", f"{self.chip:#x}")

    def __exit__(self, *_):
        self.goes()


class Background:
    """A program that runs while others do; `log` is the file that has all it says."""

    def __init__(self, case, *command, env=None):
        self.log = case.path(f"{os.path.basename(command[0])}.log")
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(
                [str(word) for word in command], stdin=subprocess.DEVNULL, stdout=log,
                stderr=log, env={**os.environ, **(env or {})})
        case.addCleanup(self.kill)

    def says(self, text):
        with open(self.log, encoding="utf-8") as file:
            return text in file.read()

    def said(self):
        with open(self.log, encoding="utf-8") as file:
            return file.read()

    def runs(self):
        return self.process.poll() is None

    def wait_until(self, condition, what):
        wait_for(lambda: condition() or not self.runs(), what)
        if not self.runs():
            raise AssertionError(f"exit code {self.process.returncode}: {self.said()}")

    def stop(self):
        """The exit code, after it was told to go."""
        self.process.terminate()
        return self.process.wait(TIMEOUT)

    def kill(self):
        if self.runs():
            self.process.kill()
            self.process.wait()


class Daemon:
    """nimbod with one bus; the context is its life."""

    def __init__(self, case, number, node):
        self.case, self.number = case, number
        self.directory = case.path("nimbod")
        self.socket = os.path.join(self.directory, "smbus")
        self.program = Background(case, NIMBOD, "--bus", f"{number}={node}", "--socket-dir",
                                  self.directory)

    def __enter__(self):
        self.program.wait_until(lambda: os.path.exists(self.socket), "nimbod's socket")
        return self

    def __exit__(self, kind, *_):
        code = self.program.stop()
        if kind is None:
            self.case.assertEqual(0, code, self.program.said())

    def url(self, chip):
        return f"smbus:{self.number}@{chip:#x}?socket={self.socket}"


class Function:
    """A PCI function, by vendor and device; its memory is switched on."""

    def __init__(self, vendor, device, enable=True):
        for folder in glob.glob("/sys/bus/pci/devices/*"):
            if (self._number(f"{folder}/vendor"), self._number(f"{folder}/device")) == (vendor,
                                                                                       device):
                self.folder = folder
                self.name = os.path.basename(folder)
                break
        else:
            raise AssertionError(f"no PCI function {vendor:04x}:{device:04x}")
        if enable:
            self.enable()

    def enable(self):
        if not self._number(f"{self.folder}/enable"):
            put(f"{self.folder}/enable", "1")

    @staticmethod
    def _number(path):
        with open(path, encoding="ascii") as file:
            return int(file.read(), 0)

    def url(self, bar):
        return f"pci:{self.name}/resource{bar}"

    def base(self, bar):
        with open(f"{self.folder}/resource", encoding="ascii") as file:
            return int(file.read().splitlines()[bar].split()[0], 0)


class Agent:
    """tarn-shadowd with one core, 'core'; the context is its life."""

    SETTINGS = "retry_first_ms = 100\nretry_most_ms = 500\ncheck_interval_ms = {check}\n"

    def __init__(self, case, url, check=0):
        self.case = case
        self.board = case.write("board.toml", f'[devices.core]\nlist = "list.csv"\n'
                                f'transport = "{url}"\n[shadow]\ncores = ["core"]\n'
                                + self.SETTINGS.format(check=check))
        self.env = {"TARN_TABLE_DIR": case.path("tables")}
        self.program = Background(case, SHADOWD, "--board", self.board, env=self.env)

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if kind is None:
            runs = self.program.runs()
            self.case.assertEqual((True, 0), (runs, self.program.stop()), self.program.said())

    def shadow(self, *words):
        """How `tarnreg shadow` ends."""
        return run(TARNREG, "--board", self.board, "--device", "core", "shadow", *words,
                   env={**os.environ, **self.env})

    def set(self, *wishes):
        """Wishes, and waits until they are held."""
        done = self.shadow("set", *wishes, "--wait", "--timeout", str(TIMEOUT))
        self.case.assertEqual((0, ""), (done.code, done.err), self.program.said())

    def get(self, name):
        """What a register holds; None if nothing is known of it."""
        done = self.shadow("get", name)
        if done.code == DEVICE_ERROR:
            return None
        self.case.assertEqual((0, ""), (done.code, done.err))
        return int(done.out.split()[1], 16)

    def await_value(self, name, value):
        self.program.wait_until(lambda: self.get(name) == value,
                                f"{name} to be {value if value is None else hex(value)}")

    def state(self):
        """What core/state says, by field."""
        done = run(SHADOW_CLIENT, "state", "core", env={**os.environ, **self.env})
        self.case.assertEqual((0, ""), (done.code, done.err))
        return dict(line.split("=", 1) for line in done.out.splitlines())

    def await_state(self, **fields):
        """The state, when it has these fields."""
        seen = {}

        def is_so():
            seen.clear()
            seen.update(self.state())  # nothing while the agent has not begun
            return all(seen.get(name) == str(value) for name, value in fields.items())

        try:
            self.program.wait_until(is_so, f"{fields}")
        except AssertionError as error:
            raise AssertionError(f"{error}; it is {seen}\n{self.program.said()}") from error
        return dict(seen)

    def begin_generation(self):
        self.program.process.send_signal(signal.SIGHUP)


class Client:
    """A process that keeps a device open; the context is its life."""

    def __init__(self, case, registers, url):
        self.case = case
        self.process = subprocess.Popen(
            [CLIENT, registers, url], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True, bufsize=1)

    def __enter__(self):
        line = self.process.stdout.readline()
        if line != "open\n":
            raise AssertionError(f"{line}{self.process.communicate(timeout=TIMEOUT)[1]}")
        return self

    def __exit__(self, kind, *_):
        if kind is not None:
            self.process.kill()
        _, said = self.process.communicate(timeout=TIMEOUT)
        if kind is None:
            self.case.assertEqual((0, ""), (self.process.returncode, said))

    def do(self, words):
        """The answer to a command; one that ends the process fails the case."""
        self.process.stdin.write(words + "\n")
        line = self.process.stdout.readline()
        if not line:
            raise AssertionError(f"{words}: exit code {self.process.wait(TIMEOUT)}: "
                                 f"{self.process.stderr.read()}")
        return line.rstrip("\n")
