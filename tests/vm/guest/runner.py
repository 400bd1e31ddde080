"""Runs the cases of one boot, as the guest's only process, and tells the host of each."""

import os
import signal
import sys
import time
import traceback
import unittest

import host

# Seconds for a case. One that hangs fails, and the others still have their turn.
PATIENCE = 600

# What QEMU makes its exit code of; the host expects it when all went well, and only then.
GOOD, BAD = 0x10, 0x20


class Result(unittest.TestResult):
    def __init__(self):
        super().__init__()
        self.began = 0

    def startTest(self, test):
        super().startTest(test)
        self.began = time.monotonic()
        signal.alarm(PATIENCE)
        print(f"case {test.id()}", flush=True)

    def stopTest(self, test):
        super().stopTest(test)
        signal.alarm(0)

    def _tell(self, test, outcome, text=""):
        seconds = round(time.monotonic() - self.began, 1) if self.began else 0
        host.tell(case=test.id(), outcome=outcome, text=text, seconds=seconds)

    def addSuccess(self, test):
        super().addSuccess(test)
        self._tell(test, "ok")

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._tell(test, "failed", self.failures[-1][1])

    def addError(self, test, err):
        super().addError(test, err)
        self._tell(test, "failed", self.errors[-1][1])

    def addSkip(self, test, reason):
        # Whatever is asked for is there; a case has no reason to be left out.
        super().addSkip(test, reason)
        self.errors.append((test, reason))
        self._tell(test, "failed", f"skipped: {reason}")


def give_up(*_):
    raise AssertionError(f"not done after {PATIENCE} s")


def run():
    signal.signal(signal.SIGALRM, give_up)
    suite = unittest.defaultTestLoader.loadTestsFromNames(host.SETTING["cases"])
    result = Result()
    suite.run(result)
    host.tell(end=True)
    return result.wasSuccessful()


def leave(code):
    """Ends the machine at once."""
    sys.stdout.flush()
    os.sync()
    port = os.open("/dev/port", os.O_RDWR)
    os.pwrite(port, bytes([code]), 0xF4)


if __name__ == "__main__":
    good = False
    try:
        good = run()
    except BaseException:
        host.tell(broken=traceback.format_exc())
    leave(GOOD if good else BAD)
