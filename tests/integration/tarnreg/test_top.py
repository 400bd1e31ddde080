"""tarnreg top at a real terminal: what it shows, and that the terminal is as before, whatever ends it."""

import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import time
import unittest

from support import BOARD, TARNREG, TIMEOUT, TarnregTest, environment, run

ENTER = b"\x1b[?1049h"
LEAVE = b"\x1b[?1049l"


class Session:
    """A tarnreg at a terminal of its own."""

    def __init__(self, *arguments, rows=24, columns=80, **env):
        self.master, self.slave = pty.openpty()
        self.size(rows, columns)
        self.before = termios.tcgetattr(self.slave)
        self.output = b""
        env.setdefault("TERM", "xterm")
        env.setdefault("LC_ALL", "C.UTF-8")
        self.child = subprocess.Popen(
            [TARNREG, *arguments], stdin=self.slave, stdout=self.slave, stderr=self.slave,
            env=environment(**env), start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))

    def size(self, rows, columns):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def read(self):
        if select.select([self.master], [], [], 0.05)[0]:
            self.output += os.read(self.master, 65536)

    def until(self, text):
        """Reads until `text` has come, and forgets what came until then."""
        deadline = time.monotonic() + TIMEOUT
        while text not in self.output:
            assert time.monotonic() < deadline, self.output[-2000:]
            self.read()
        seen, self.output = self.output.split(text, 1)
        return seen

    def keys(self, text):
        os.write(self.master, text)

    def end(self):
        deadline = time.monotonic() + TIMEOUT
        while self.child.poll() is None:
            assert time.monotonic() < deadline
            self.read()
        self.read()
        return self.child.returncode

    def close(self):
        if self.child.poll() is None:
            self.child.kill()
            self.child.wait()
        os.close(self.master)
        os.close(self.slave)


class Top(TarnregTest):
    def start(self, *arguments, **options):
        session = Session(*arguments, **options)
        self.addCleanup(session.close)
        return session

    def top(self, *arguments, **options):
        return self.start("--file", BOARD, *options.pop("where", ()), "top", *arguments, **options)

    def assert_restored(self, session):
        self.assertIn(LEAVE, session.output)
        self.assertEqual(session.output.count(b"\x1b[?25h"), 1)
        self.assertEqual(termios.tcgetattr(session.slave), session.before)

    def test_shows_registers_and_ends_with_q(self):
        session = self.top("SCRATCH", "FAN[0:1]_PWM")
        session.until(ENTER)
        session.until(b"switch-board  3 registers, every 1 s, round 1")
        session.until(b"SCRATCH     0x00000000")
        session.until(b"FAN[1]_PWM  0x00")
        session.keys(b"q")
        self.assertEqual(session.end(), 0)
        self.assert_restored(session)

    def test_signals_end_it_and_leave_the_terminal_as_it_was(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGABRT):
            session = self.top("SCRATCH")
            session.until(b"q quits")
            session.child.send_signal(number)
            self.assertEqual(session.end(), -number)
            self.assert_restored(session)

    def test_control_c_ends_it(self):
        session = self.top("SCRATCH")
        session.until(b"q quits")
        session.keys(b"\x03")
        self.assertEqual(session.end(), -signal.SIGINT)
        self.assert_restored(session)

    def test_a_stop_gives_the_terminal_back_and_going_on_takes_it(self):
        session = self.top("SCRATCH")
        session.until(b"q quits")
        session.child.send_signal(signal.SIGTSTP)
        session.until(LEAVE)
        # A process group without anybody who could continue it is not stopped.
        session.child.send_signal(signal.SIGCONT)
        session.until(ENTER)
        session.until(b"SCRATCH")
        session.keys(b"q")
        self.assertEqual(session.end(), 0)

    def test_changes_are_highlighted_and_plotted(self):
        space = self.write("space", bytes(4096))
        session = self.top("SCRATCH", "--interval", "0.02", where=("--transport", f"pci:{space}"))
        session.until(b"SCRATCH  0x00000000  \xe2\x96\x81")
        with open(space, "r+b") as file:
            file.seek(16)
            file.write(struct.pack("=I", 9))
        session.until(b"SCRATCH  \x1b[7m0x00000009\x1b[0m  ")
        session.until(b"SCRATCH  0x00000009  ")
        self.assertIn("█".encode(), session.until(b"\r\n"))
        session.keys(b"q")
        self.assertEqual(session.end(), 0)

    def test_plots_are_of_ascii_where_nothing_else_is_known(self):
        for options, arguments in (({"LC_ALL": "C"}, []), ({}, ["--ascii"])):
            session = self.top("SCRATCH", *arguments, NO_COLOR="1", **options)
            session.until(b"  SCRATCH  0x00000000  _")
            session.keys(b"q")
            self.assertEqual(session.end(), 0)

    def test_follows_the_size_of_the_terminal(self):
        session = self.top(rows=6, columns=60, NO_COLOR="1")
        session.until(b"arrows scroll: 1 to 4")
        session.size(10, 70)
        session.until(b"arrows scroll: 1 to 8")
        session.keys(b"\x1b[B")
        session.until(b"arrows scroll: 2 to 9")
        session.keys(b"G")
        session.until(b"arrows scroll: 273 to 280")
        session.size(1, 1)
        session.keys(b"q")
        self.assertEqual(session.end(), 0)
        self.assert_restored(session)

    def test_a_device_that_fails_says_so_in_the_line(self):
        space = self.write("space", bytes(4096))
        session = self.top("SCRATCH", "--interval", "0.02", columns=200,
                           where=("--transport", f"pci:{space}"))
        session.until(b"SCRATCH  0x00000000")
        os.truncate(space, 0)
        session.until(b"1 cannot be read")
        session.until(b"\x1b[31mcannot read SCRATCH: ")
        session.keys(b"q")
        self.assertEqual(session.end(), 0)
        self.assert_restored(session)

    def test_a_device_that_does_not_open_never_takes_the_screen(self):
        session = self.top("SCRATCH", where=("--transport", "i2c:/dev/none@0x50"))
        self.assertEqual(session.end(), 5)
        self.assertNotIn(ENTER, session.output)

    def test_pauses(self):
        session = self.top("SCRATCH", "--interval", "0.02")
        session.until(b"q quits")
        session.keys(b"p")
        session.until(b", paused")
        session.keys(b"p")
        session.until(b"round")
        session.keys(b"q")
        self.assertEqual(session.end(), 0)

    def test_is_as_watch_without_a_terminal(self):
        for env in ({"TERM": "dumb"},):
            session = self.top("SCRATCH", **env)
            session.until(b"SCRATCH  0x00000000\r\n")
            session.keys(b"\x03")
            self.assertEqual(session.end(), -signal.SIGINT)
        self.assert_run(run("--file", BOARD, "top", "NOPE"), 3, "", "tarnreg: error: no register NOPE\n")
        with subprocess.Popen([TARNREG, "--file", BOARD, "top", "SCRATCH"], stdout=subprocess.PIPE,
                              env=environment()) as child:
            self.assertEqual(child.stdout.readline(), b"SCRATCH  0x00000000\n")
            child.terminate()
            self.assertEqual(child.wait(timeout=TIMEOUT), -signal.SIGTERM)


if __name__ == "__main__":
    unittest.main()
