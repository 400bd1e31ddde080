"""What the tests of the tarnreg command share: the programs under test, and ways to run them."""

import json
import os
import shutil
import signal
import subprocess
import tempfile
import unittest

TARNREG = os.environ["TARNREG"]
EXAMPLES = os.environ["TARN_EXAMPLES"]
SOURCE = os.environ["TARN_SOURCE"]
BUILD = os.environ["TARN_BUILD"]
BOARD = os.path.join(SOURCE, "examples", "switch-board.csv")
HEADER = "number,name,type,writeable,width\n"

# Only a program that hangs runs into this.
TIMEOUT = 100


def environment(**changes):
    """The caller's environment without what the command looks at, and with `changes`."""
    env = dict(os.environ)
    for name in ("REG_VALUES_FILE", "TARN_BOARD", "TARN_TABLE_DIR", "TARN_TRACE",
                 "NO_COLOR"):
        env.pop(name, None)
    env.update(changes)
    return env


class Result:
    def __init__(self, code, out, err):
        self.code = code
        self.out = out
        self.err = err

    @property
    def document(self):
        return json.loads(self.out)


def run(*arguments, env=None, stdin="", **options):
    """Runs tarnreg; `env` holds changes of the environment."""
    options.setdefault("stdout", subprocess.PIPE)
    done = subprocess.run(
        [TARNREG, *arguments],
        input=None if "preexec_fn" in options else os.fsencode(stdin),
        stderr=subprocess.PIPE,
        env=environment(**(env or {})),
        timeout=TIMEOUT,
        **options,
    )
    out = done.stdout.decode("utf-8", "surrogateescape") if done.stdout is not None else None
    return Result(done.returncode, out, done.stderr.decode("utf-8", "surrogateescape"))


class TarnregTest(unittest.TestCase):
    """A test with a directory of its own."""

    maxDiff = None

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="tarnreg-test-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, content):
        with open(self.path(name), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        return self.path(name)

    def list(self, lines):
        return self.write("list.csv", (HEADER.encode() if isinstance(lines, bytes) else HEADER) + lines)

    def values(self, name="values.csv"):
        """The values file as a set of its lines; the order of addresses is not defined."""
        with open(self.path(name)) as file:
            lines = file.read().splitlines()
        self.assertEqual(lines[0], "Address,Value")
        return set(lines[1:])

    def assert_run(self, result, code, out=None, err=None):
        self.assertEqual(result.code, code, result.err)
        if out is not None:
            self.assertEqual(result.out, out)
        if err is not None:
            self.assertEqual(result.err, err)
