"""Everything together for as long as one likes: a simulated board whose devices fail and go, the SMBus
daemon, the shadow agent, clients of every kind, and somebody who kills them.

    soak.py --bin build/release/bin --minutes 10 [--seed N]

Now and then all of it is held still, and looked at: each register has a value that it may have, nothing
is damaged, and what runs long holds no more memory and descriptors than before. Ends with 1 and the
reason as soon as something is not as it should be; prints what was done.
"""

import argparse
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

PATIENCE = 120  # seconds that something may take which has to come about by itself

LIST = "number,name,type,writeable,width\n0,ID,id,false,32\n16,R[0:31],control,true,32\n"

# Whose registers are whose, so that everybody knows what they may hold.
WISHED = range(0, 8)
DIRECT = range(8, 16)
ORDERED = (16, 17)

BOARD = """
[devices.block]
list = "list.csv"
transport = "i2c:/dev/i2c-3@0x50"
[devices.later]
list = "list.csv"
transport = "sorn:/dev/i2c-5@0x50?timeout=2000"
[devices.mapped]
list = "list.csv"
transport = "pci:0000:ff:00.0/resource0"
[devices.proxied]
list = "list.csv"
transport = "smbus:4@0x50?socket=smbus"

[shadow]
cores = ["block", "later", "mapped"]
check_interval_ms = 50
retry_first_ms = 20
retry_most_ms = 100
kept_operations = 50

[nimbod]
[nimbod.buses.four]
number = 4
device = "/dev/i2c-4"
timeout_ms = 1000

[simulate.i2c.block]
bus = "/dev/i2c-3"
address = 0x50
kind = "block"
address_unit = 4
[simulate.i2c.proxied]
bus = "/dev/i2c-4"
address = 0x50
kind = "block"
address_unit = 4
[simulate.i2c.later]
bus = "/dev/i2c-5"
address = 0x50
kind = "block"
address_unit = 4
[simulate.pci.mapped]
function = "0000:ff:00.0"
resource = 0
size = 4096
"""

# Signals that come before a program could take them end it.
MAY_END_WITH = (0, -signal.SIGKILL, -signal.SIGTERM, -signal.SIGHUP)

CHIPS = ("block", "proxied", "later", "mapped")
CORES = ("block", "later", "mapped")


class Violation(Exception):
    """Something is not as it should be."""


class Service:
    """A program that is started again whenever it has ended."""

    def __init__(self, name, command, environment, log):
        self.name = name
        self.command = command
        self.environment = environment
        self.log_path = log
        self.starts = 0
        self.kills = 0
        self.lock = threading.Lock()
        self.process = None
        self.stopping = False
        self.samples = []  # of the process that runs now: (kB, descriptors)
        self.start()

    def start(self):
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(
                self.command, env=self.environment, stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, stderr=log)
        self.starts += 1
        self.samples = []

    def signal(self, number):
        with self.lock:
            if self.process.poll() is None:
                self.process.send_signal(number)
                if number == signal.SIGKILL:
                    self.kills += 1
                    self.process.wait()

    def look(self):
        """Starts it again if it has ended as it may."""
        with self.lock:
            code = self.process.poll()
            if code is None or self.stopping:
                return
            if code not in MAY_END_WITH:
                raise Violation(f"{self.name} ended with {code}: {self.last_words()}")
            self.start()

    def stop(self):
        with self.lock:
            self.stopping = True
            if self.process.poll() is None:
                self.process.terminate()
        code = self.process.wait(PATIENCE)
        if code not in MAY_END_WITH:
            raise Violation(f"{self.name} stopped with {code}: {self.last_words()}")

    def last_words(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as log:
            return "".join(log.readlines()[-5:])

    def sample(self):
        self.samples.append(sample_of(self.process.pid))


def sample_of(pid):
    with open(f"/proc/{pid}/status", encoding="utf-8") as file:
        memory = next(int(line.split()[1]) for line in file if line.startswith("VmRSS:"))
    return memory, len(os.listdir(f"/proc/{pid}/fd"))


def check_flat(name, samples):
    """The first sample is of a process that may have been warming up."""
    if len(samples) < 4:
        return
    before, now = samples[1], samples[-1]
    if now[0] > before[0] * 1.2 + 4096:
        raise Violation(f"{name} grows: {before[0]} kB and then {now[0]} kB")
    if now[1] > before[1] + 2:
        raise Violation(f"{name} keeps descriptors: {before[1]} and then {now[1]}")


class Soak:
    def __init__(self, arguments):
        self.bin = os.path.abspath(arguments.bin)
        self.random = random.Random(arguments.seed)
        self.end = time.monotonic() + arguments.minutes * 60
        self.interval = min(15.0, max(3.0, arguments.minutes * 60 / 8))
        self.dir = os.getcwd()
        self.control = os.environ["TARNSIM_CONTROL"]
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith(("NM_", "REG_", "TARN_TRACE"))}
        self.environment["TARN_TABLE_DIR"] = os.path.join(self.dir, "tables")
        self.going = threading.Event()  # workers work
        self.over = threading.Event()
        self.failure = None
        self.idle = threading.Semaphore(0)
        self.counts = {}
        self.clients = set()  # processes that may be killed
        self.clients_lock = threading.Lock()
        self.points = 0

    # -- what clients do

    def run(self, *command, killable=False, limit=None):
        """The exit code and what was said. After `limit` seconds it is killed."""
        process = subprocess.Popen(command, env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if killable:
            with self.clients_lock:
                self.clients.add(process)
        try:
            out, error = process.communicate(timeout=PATIENCE * 2 if limit is None else limit)
        except subprocess.TimeoutExpired as late:
            process.kill()
            process.communicate()
            if limit is None:
                raise Violation(f"{' '.join(command)} does not end") from late
            return -signal.SIGKILL, "", ""
        finally:
            with self.clients_lock:
                self.clients.discard(process)
        return process.returncode, out, error

    def tarnreg(self, device, *words, killable=False):
        # Clients of the SMBus daemon wait for ever if it is killed before it has answered.
        limit = 10 if device == "proxied" else None
        code, out, error = self.run(os.path.join(self.bin, "tarnreg"), "-b", "board.toml", "-d",
                                    device, *words, killable=killable, limit=limit)
        expected = (0, 1, 4, 5, 6) + ((-signal.SIGKILL,) if killable or limit else ())
        if code not in expected:
            raise Violation(f"tarnreg {device} {' '.join(words)}: {code}: {error}")
        return code, out, error

    def sim(self, *words):
        code, out, error = self.run(os.path.join(self.bin, "tarnsim"), "control", self.control,
                                    *words)
        if code != 0:
            raise Violation(f"tarnsim control {' '.join(words)}: {code}: {error}")
        return out

    def count(self, what):
        self.counts[what] = self.counts.get(what, 0) + 1

    # -- workers: each does one thing again and again while it is asked to

    def direct(self, device, register):
        """Writes a register of its own and reads it back: it has a value that it may have."""
        name = f"R[{register}]"
        may_be = {0}
        number = 0
        while self.working():
            number += 1
            code, _, _ = self.tarnreg(device, "write", f"{name}={number}")
            may_be = {number} if code == 0 else may_be | {number}
            self.count("direct writes" if code == 0 else "direct writes that failed")
            code, out, _ = self.tarnreg(device, "--base", "dec", "read", name)
            if code == 0:
                value = int(out.split()[-1])
                if value not in may_be:
                    raise Violation(f"{device}: {name} is {value}, not one of {sorted(may_be)}")
                may_be = {value}
                self.count("direct reads")

    def wishes(self, core, register):
        """Wishes one value after the other; the client may be killed over it."""
        name = f"R[{register}]"
        history = self.wished[core, register] = []  # the last acknowledged one and those after it
        number = 0
        while self.working():
            number += 1
            history.append(number)
            words = ["set", f"{name}={number}"]
            if self.random.random() < 0.2:
                words += ["--wait", "--timeout", "3"]
            code, _, error = self.tarnreg(core, "shadow", *words, killable=True)
            if code in (0, 6):
                history[:] = [number]
                self.count("wishes")
            elif code == -signal.SIGKILL:
                self.count("clients killed over a wish")
            else:
                raise Violation(f"{core}: a wish was refused: {error}")

    def orders(self, core):
        number = 0
        while self.working():
            number += 1
            writes = [f"R[{register}]={number}" for register in ORDERED]
            code, _, _ = self.tarnreg(core, "shadow", "order", *writes, "--timeout", "3",
                                      killable=True)
            self.ordered[core] = number
            self.count("ordered operations" if code == 0 else "ordered operations that did not end")

    def looks(self, core):
        """Reads what there is, and audits it."""
        while self.working():
            self.tarnreg(core, "shadow", "list", killable=True)
            self.tarnreg(core, "shadow", "watch", "--timeout", "0.5", killable=True)
            code, out, error = self.run(os.path.join(self.bin, "tarnreg"), "table", "audit")
            if code != 0:
                raise Violation(f"an audit: {code}: {out}{error}")
            self.count("audits")

    def chaos(self):
        """Makes devices fail and go, and kills."""
        while self.working():
            time.sleep(self.random.uniform(0.02, 0.3))
            chip = self.random.choice(CHIPS)
            what = self.random.choice(self.doings)
            if what == "lose":
                self.sim("lose", chip)
                time.sleep(self.random.uniform(0, 0.3))
                self.sim("return", chip)
            elif what == "fault" and chip != "mapped":
                # In a transfer without a length of its own nobody could tell that it was short.
                kinds = ("nak", "eio", "timeout") + (("short",) if chip == "block" else ())
                kind = self.random.choice(kinds)
                self.sim("fault", chip, kind, f"count={self.random.randint(1, 20)}")
            elif what == "delay" and chip != "mapped":
                self.sim("delay", chip, str(self.random.choice((0, 0, 500, 3000))))
            elif what == "client":
                with self.clients_lock:
                    for process in list(self.clients):
                        if self.random.random() < 0.5:
                            process.kill()
            elif what == "hup":
                self.agent.signal(signal.SIGHUP)
            elif what == "resync":
                self.tarnreg(self.random.choice(CORES), "shadow", "resync", "--timeout", "2",
                             killable=True)
            elif what == "stop":
                self.random.choice((self.agent, self.daemon)).signal(signal.SIGTERM)
            elif what == "kill":
                self.random.choice((self.agent, self.daemon)).signal(signal.SIGKILL)
            self.count(f"chaos: {what}")

    def working(self):
        """Waits while all is held still. False at the end."""
        if not self.going.is_set():
            self.idle.release()
            while not self.going.wait(0.2):
                if self.over.is_set():
                    return False
        return not self.over.is_set()

    # -- the quiet points

    def hold(self, workers):
        self.going.clear()
        for _ in workers:
            end = time.monotonic() + PATIENCE * 3
            while not self.idle.acquire(timeout=0.2):
                if self.failure:
                    return
                self.keep()
                if time.monotonic() > end:
                    raise Violation("somebody does not come to rest")

    def keep(self):
        for service in (self.daemon, self.agent):
            service.look()

    def await_true(self, condition, what):
        end = time.monotonic() + PATIENCE
        while True:
            self.keep()
            text = condition()
            if not text:
                return
            if time.monotonic() > end:
                raise Violation(f"waited in vain for {what}: {text}")
            time.sleep(0.05)

    def check(self):
        for chip in CHIPS:
            self.sim("return", chip)
            if chip != "mapped":
                self.sim("clear", chip)
                self.sim("delay", chip, "0")

        def not_ready(core):
            code, _, error = self.tarnreg(core, "shadow", "resync", "--timeout", "30")
            return error if code else ""

        def not_held(core):
            code, out, error = self.tarnreg(core, "shadow", "diff")
            return (out + error) if code else ""

        for core in CORES:
            self.await_true(lambda core=core: not_ready(core), f"{core} to be ready")
            self.await_true(lambda core=core: not_held(core), f"{core} to hold what is wished")
            for (of, register), history in self.wished.items():
                if of == core and history:
                    self.check_wish(core, register, history)
            self.check_order(core)
        for name, service in (("tarn-shadowd", self.agent), ("nimbod", self.daemon)):
            service.sample()
            check_flat(name, service.samples)
        self.sim_samples.append(sample_of(self.sim_pid))
        check_flat("tarnsim", self.sim_samples)
        self.points += 1

    def hardware(self, chip, register):
        return int(self.sim("get", chip, f"{(16 + register) * (4 if chip == 'mapped' else 1):#x}")
                   .split()[-1], 0)

    def check_wish(self, core, register, history):
        value = self.hardware(core, register)
        if value not in history:
            raise Violation(f"{core}: R[{register}] is {value}; wished for: {history}")
        history[:] = [value]  # it was said to be held, so nothing older comes back

    def check_order(self, core):
        first, second = (self.hardware(core, register) for register in ORDERED)
        if not second <= first <= self.ordered.get(core, 0) + 1:
            raise Violation(f"{core}: ordered writes have left {first} and {second}")

    # -- all of it

    def guarded(self, work, *arguments):
        try:
            work(*arguments)
        except Exception as error:  # pylint: disable=broad-except
            self.failure = self.failure or error
            self.over.set()
        self.idle.release()

    def main(self):
        self.wished = {}
        self.ordered = {}
        self.sim_pid = supervisor()
        self.sim_samples = []
        self.daemon = Service("nimbod", [os.path.join(self.bin, "nimbod"), "--config", "board.toml",
                                         "--socket-dir", self.dir], self.environment, "nimbod.log")
        self.agent = Service("tarn-shadowd", [os.path.join(self.bin, "tarn-shadowd"), "--board",
                                              "board.toml"], self.environment, "shadowd.log")
        jobs = [(self.chaos,)]
        jobs += [(self.direct, device, DIRECT[i]) for i, device in enumerate(CHIPS)]
        jobs += [(self.wishes, core, WISHED[i]) for core in CORES for i in range(2)]
        jobs += [(self.orders, core) for core in CORES]
        jobs += [(self.looks, core) for core in CORES[:2]]
        workers = [threading.Thread(target=self.guarded, args=job) for job in jobs]
        for worker in workers:
            worker.start()
        try:
            while time.monotonic() < self.end and not self.failure:
                # Whoever is to be seen to hold no more than before has to live for a while.
                gentle = ["lose", "fault", "fault", "delay", "client", "hup", "resync"]
                is_rough = self.points % 8 < 3
                self.doings = gentle + (["kill", "kill", "stop"] if is_rough else [])
                self.going.set()
                wait_until = time.monotonic() + self.interval
                while time.monotonic() < wait_until and not self.over.is_set():
                    self.keep()
                    time.sleep(0.05)
                self.hold(workers)
                if self.failure:
                    break
                self.check()
            if self.points == 0 and not self.failure:
                raise Violation("it was over before anything was looked at")
        except Exception as error:  # pylint: disable=broad-except
            self.failure = self.failure or error
        finally:
            self.over.set()
            for worker in workers:
                worker.join()
            for service in (self.agent, self.daemon):
                try:
                    service.stop()
                except Exception as error:  # pylint: disable=broad-except
                    self.failure = self.failure or error
        return self.report()

    def report(self):
        for what in sorted(self.counts):
            print(f"{self.counts[what]:8}  {what}")
        for service in (self.agent, self.daemon):
            print(f"{service.kills:8}  {service.name} killed")
            if service.samples:
                print(f"          {service.name} at the end: {service.samples[-1][0]} kB, "
                      f"{service.samples[-1][1]} descriptors")
        print(f"{self.points:8}  quiet points at which all was as it should be")
        if self.failure:
            print(f"soak: {self.failure}", file=sys.stderr)
            if not isinstance(self.failure, Violation):
                raise self.failure
            return 1
        return 0


def supervisor():
    """The tarnsim that this runs under."""
    pid = os.getpid()
    found = None
    while pid > 1:
        with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
            name, rest = file.read().split("(", 1)[1].rsplit(")", 1)
        if name == "tarnsim":
            found = pid
        pid = int(rest.split()[1])
    if not found:
        raise Violation("this does not run under tarnsim")
    return found


def outside(arguments):
    place = tempfile.mkdtemp(prefix="tarn-soak.")
    for name, text in (("list.csv", LIST), ("board.toml", BOARD)):
        with open(os.path.join(place, name), "w", encoding="utf-8") as file:
            file.write(text)
    print(f"seed {arguments.seed}", flush=True)
    code = subprocess.run(
        [os.path.join(os.path.abspath(arguments.bin), "tarnsim"), "--board", "board.toml",
         "--control", os.path.join(place, "control"), "--", sys.executable, "-B",
         os.path.abspath(__file__), "--inside", "--bin", os.path.abspath(arguments.bin),
         "--minutes", str(arguments.minutes), "--seed", str(arguments.seed)],
        cwd=place, check=False).returncode
    if code == 0:
        shutil.rmtree(place)
    else:
        print(f"soak: everything is in {place}", file=sys.stderr)
    return code


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--bin", required=True)
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    return Soak(arguments).main() if arguments.inside else outside(arguments)


if __name__ == "__main__":
    sys.exit(main())
