"""Run under tarnsim: clients of the daemon and programs that use the bus themselves, on the same
device at once. Each reads a register of its own in two transfers, the first of which points the
device there; without the lock that they share they would read each other's.

Ends with 0 if every value was right."""

import os
import subprocess
import sys
import threading

from daemon import Daemon
from wire import Client

BUSES = """
[nimbod.buses.main]
number = 3
device = "/dev/i2c-3"
"""


def main(register_list):
    wrong = []
    done = threading.Event()
    with Daemon(board=BUSES) as daemon:

        def through_daemon(register, expected):
            with Client(daemon.path) as client:
                while not done.is_set():
                    value = client.read_register(3, 0x50, register)
                    if value != expected:
                        wrong.append(("daemon", hex(register), hex(value)))
                        return

        threads = [threading.Thread(target=through_daemon, args=each)
                   for each in ((0x1234, 0xDEADBEEF), (0x20, 0x01020304))]
        for thread in threads:
            thread.start()
        for _ in range(10):
            bus = subprocess.run(
                [os.environ["TARNREG"], "--file", register_list, "--transport",
                 "i2c:/dev/i2c-3@0x50", "read"] + ["OWN"] * 20,
                check=False, capture_output=True, text=True, timeout=120)
            if bus.returncode != 0 or bus.stdout.count("0x0badcafe") != 20:
                wrong.append(("bus", bus.stdout, bus.stderr))
        done.set()
        for thread in threads:
            thread.join()
        # The daemon's node is the board's, and what it writes the others read.
        with Client(daemon.path) as client:
            client.write_register(3, 0x50, 0x30, 0x55667788)
        bus = subprocess.run(
            [os.environ["TARNREG"], "--file", register_list, "--transport", "i2c:/dev/i2c-3@0x50",
             "read", "WRITTEN"], check=False, capture_output=True, text=True, timeout=120)
        if "0x55667788" not in bus.stdout:
            wrong.append(("written", bus.stdout, bus.stderr))
        if daemon.stop() != 0:
            wrong.append(("daemon", daemon.log()))
    print(wrong)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
