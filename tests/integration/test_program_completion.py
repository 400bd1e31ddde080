"""Completion of nimbod, nimboctl, tarn-shadowd and tarnsim, as bash and zsh have it."""

import os
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

BIN, SOURCE = sys.argv[1:3]
del sys.argv[1:3]
FOLDER = os.path.join(SOURCE, "tools", "completion")
ZSH = shutil.which("zsh")
TIMEOUT = 100
BOARD = os.path.join(SOURCE, "examples", "switch-board.toml")


class CompletionTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="tarn-completion-")
        self.addCleanup(shutil.rmtree, self.dir)
        os.mkdir(os.path.join(self.dir, "folder"))
        for name in ("board.toml", "other"):
            with open(os.path.join(self.dir, name), "w"):
                pass
        self.env = {**os.environ, "PATH": BIN + ":" + os.environ["PATH"], "HOME": self.dir,
                    "INPUTRC": "/dev/null", "LC_ALL": "C.UTF-8", "TERM": "dumb", "PS1": "", "PS2": ""}
        self.env.pop("TARNSIM_CONTROL", None)


class Bash(CompletionTest):
    def complete(self, *words):
        """COMPREPLY as bash would have it with the cursor behind the last of `words`."""
        script = f"""
            source {FOLDER}/programs.bash
            COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
            _tarn_program "$1" "${{@: -1}}" "${{@: -2:1}}"
            printf '%s\\n' "${{COMPREPLY[@]}}"
        """
        done = subprocess.run(["bash", "--norc", "-c", script, "bash", *words], env=self.env,
                              capture_output=True, text=True, timeout=TIMEOUT, cwd=self.dir,
                              check=False)
        self.assertEqual(done.stderr, "")
        return sorted(done.stdout.split())

    def test_options_are_those_of_the_help(self):
        self.assertEqual(self.complete("nimbod", "--socket"),
                         ["--socket-dir", "--socket-file", "--socket-mode"])
        self.assertEqual(self.complete("tarn-shadowd", "--o"), ["--others-read"])
        self.assertEqual(self.complete("nimboctl", "--j"), ["--json"])
        self.assertEqual(self.complete("tarnsim", "--"),
                         ["--board", "--check", "--control", "--help", "--version", "--wire-log"])
        self.assertEqual(self.complete("nimbod", "--nope"), [])

    def test_values_are_of_the_options_kind(self):
        self.assertEqual(self.complete("nimbod", "--config", ""), ["board.toml", "folder", "other"])
        self.assertEqual(self.complete("nimbod", "-c", "b"), ["board.toml"])
        self.assertEqual(self.complete("nimbod", "--config", "=", "b"), ["board.toml"])
        self.assertEqual(self.complete("nimbod", "--socket-dir", ""), ["folder"])
        self.assertEqual(self.complete("nimbod", "--log", ""), ["stderr", "syslog"])
        self.assertEqual(self.complete("tarn-shadowd", "--log", "=", "sy"), ["syslog"])
        self.assertIn("root", self.complete("nimbod", "--allow-user", "roo"))
        self.assertIn("root", self.complete("tarn-shadowd", "--group", "roo"))
        self.assertEqual(self.complete("nimbod", "--max-connections", ""), [])
        self.assertEqual(self.complete("nimbod", "--simulate", ""), [], "which takes no value")

    def test_cores_are_devices_of_the_board_file(self):
        self.assertEqual(self.complete("tarn-shadowd", "--board", BOARD, "--core", "fpga-s"),
                         ["fpga-smbus", "fpga-sorn"])
        self.assertEqual(self.complete("tarn-shadowd", "--core", ""), [])

    def test_verbs(self):
        self.assertEqual(self.complete("nimboctl", ""), ["status"])
        self.assertEqual(self.complete("nimboctl", "--socket-dir", "x", "s"), ["status"])
        self.assertEqual(self.complete("nimbod", ""), [])

    def test_tarnsim_completes_the_command_that_it_runs(self):
        self.assertEqual(self.complete("tarnsim", "--board", "b"), ["board.toml"])
        self.assertIn("tarnreg", self.complete("tarnsim", "--board", "board.toml", "--", "tarnr"))
        self.assertIn("tarnreg", self.complete("tarnsim", "--board", "board.toml", "tarnr"))
        self.assertEqual(self.complete("tarnsim", "--board", "x", "--", "cat", "--ot"), [])
        self.assertEqual(self.complete("tarnsim", "--board", "x", "--", "cat", "ot"), ["other"])
        self.assertIn("control", self.complete("tarnsim", "contr"))

    def test_tarnsim_control_completes_what_the_simulation_has(self):
        self.assertEqual(self.complete("tarnsim", "control", "fo"), ["folder"], "a socket may be there")
        inner = f"""
            source {FOLDER}/programs.bash
            try() {{
               COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
               _tarn_program "$1" "${{@: -1}}" "${{@: -2:1}}"
               echo "${{COMPREPLY[@]}}"
            }}
            try tarnsim control l
            try tarnsim control lose fpga
            try tarnsim control {self.dir}/sim lose s
        """
        done = subprocess.run(["tarnsim", "--board", BOARD, "--control", self.dir + "/sim", "--",
                               "bash", "--norc", "-c", inner], env=self.env, capture_output=True,
                              text=True, timeout=TIMEOUT, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(done.stdout, "lose\nfpga-i2c fpga-pci\nsensor\n")


@unittest.skipUnless(ZSH, "zsh is not installed: its completion is not tried")
class Zsh(CompletionTest):
    def keys(self, *typed):
        """What a shell at a terminal answers to keys."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.chdir(self.dir)
            os.execvpe(ZSH, [ZSH, "-f", "-i"], self.env)
        try:
            for text, answer in typed:
                output = b""
                os.write(terminal, text.encode())
                deadline = time.monotonic() + TIMEOUT
                # Shells go back and write anew what has changed.
                while answer.encode() not in re.sub(rb".\x08", b"", output):
                    self.assertLess(time.monotonic(), deadline, output)
                    if select.select([terminal], [], [], 1)[0]:
                        output += os.read(terminal, 65536)
        finally:
            os.close(terminal)
            os.kill(pid, 9)
            os.waitpid(pid, 0)

    def test_at_a_terminal(self):
        self.keys(
            (f"fpath=({FOLDER} $fpath); autoload -U compinit; compinit -u -D; echo rea''dy\n", "ready\r\n"),
            ("nimboctl --vers\t | tr a-z A-Z\n", "NIMBOCTL "),
            ("nimbod --conf\tboa\t --chec\t; echo do''ne\n", "--config=board.toml --check"),
            (f"tarn-shadowd --board {BOARD} --core fpga-so\t --chec\t; echo do''ne\n",
             "--core fpga-sorn"))


if __name__ == "__main__":
    unittest.main()
