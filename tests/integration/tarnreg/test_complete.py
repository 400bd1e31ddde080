"""Completion, as bash and zsh have it."""

import os
import pty
import select
import shutil
import subprocess
import time
import unittest

from support import BOARD, SOURCE, TARNREG, TIMEOUT, TarnregTest, environment, run

BASH = os.path.join(SOURCE, "tools", "tarnreg", "completion", "tarnreg.bash")
ZSH = shutil.which("zsh")
BREAKS = " \t\n\"'><=;|&(:@"


class CompletionTest(TarnregTest):
    def setUp(self):
        super().setUp()
        self.board = self.write(
            "board.toml", f'[devices.fpga]\nlist = "{BOARD}"\ntransport = "i2c:/dev/none@0x50"\n'
            f'[devices.cpld]\nlist = "{BOARD}"\ntransport = "mock:"\n')
        os.mkdir(self.path("bin"))
        os.symlink(TARNREG, self.path("bin/tarnreg"))

    def env(self):
        return environment(PATH=self.path("bin") + ":" + os.environ["PATH"], TARN_BOARD=self.board,
                           HOME=self.dir, PS1="", PS2="", TARN_TABLE_DIR=self.path("tables"),
                           INPUTRC="/dev/null", LC_ALL="C.UTF-8", TERM="dumb")


class Words(CompletionTest):
    """What the program says, without a shell."""

    def complete(self, *words):
        result = run("complete", "--", *words, env={"TARN_BOARD": self.board})
        self.assert_run(result, 0, err="")
        kind, *found = result.out.splitlines()
        return kind, found

    def test_are_verbs_and_their_verbs(self):
        kind, found = self.complete("")
        self.assertEqual(kind, "words")
        for verb in ("read", "write", "export", "script", "top", "shadow", "table"):
            self.assertIn(verb, found)
        self.assertNotIn("complete", found)
        self.assertEqual(self.complete("-f", BOARD, "re")[1], ["read"])
        self.assertEqual(self.complete("--device=fpga", "shadow", "re")[1], ["resync"])
        self.assertEqual(self.complete("read", "re")[1], [])

    def test_are_options_of_the_verb_and_of_all(self):
        found = self.complete("write", "--")[1]
        self.assertIn("--verify", found)
        self.assertIn("--file", found)
        self.assertNotIn("--until", found)
        self.assertIn("--with-dump", self.complete("diff", "--with")[1])
        self.assertEqual(self.complete("read", "--", "--")[1], [])

    def test_are_what_options_take(self):
        self.assertEqual(self.complete("--base", ""), ("words", ["bin", "dec", "hex"]))
        self.assertEqual(self.complete("--base=h"), ("words", ["--base=hex"]))
        self.assertEqual(self.complete("export", "--format", "h"), ("words", ["header", "html"]))
        self.assertEqual(self.complete("--file", "")[0], "files")
        self.assertEqual(self.complete("check", "")[0], "files")
        self.assertEqual(self.complete("watch", "--interval", ""), ("words", []))

    def test_are_devices_of_the_board_file(self):
        self.assertEqual(self.complete("--device", ""), ("words", ["cpld", "fpga"]))
        self.assertEqual(self.complete("-d", "f"), ("words", ["fpga"]))
        self.assertEqual(self.complete("diff", "--with-device", "c"), ("words", ["cpld"]))

    def test_are_registers_of_a_device_that_need_not_be_there(self):
        self.assertEqual(self.complete("-d", "fpga", "read", "FPGA_"),
                         ("words", ["FPGA_ID", "FPGA_REVISION"]))
        self.assertEqual(self.complete("read", "LED_S", "LED_L")[1], [])
        self.assertEqual(self.complete("-f", BOARD, "read", "X", "LED_S")[1], ["LED_SYSTEM"])
        self.assertEqual(self.complete("-f", BOARD, "write", "LED_S"), ("open", ["LED_SYSTEM="]))
        self.assertEqual(self.complete("-f", BOARD, "poll", "--until", "A=1", "LED_S"),
                         ("open", ["LED_SYSTEM="]))
        self.assertEqual(self.complete("-d", "fpga", "shadow", "get", "LED_S")[1], ["LED_SYSTEM"])

    def test_are_none_where_nothing_is_known(self):
        self.assertEqual(self.complete("-f", "/none", "read", ""), ("words", []))
        self.assertEqual(self.complete("-d", "none", "read", ""), ("words", []))
        self.assertEqual(self.complete("shadow", "state", "--dir", "/none", ""), ("words", []))

    def test_are_types(self):
        self.assertEqual(self.complete("describe", "TransportMethodE")[1], ["TransportMethodError"])

    def test_are_operations_and_then_registers(self):
        self.assertEqual(self.complete("call", "regReadA"), ("words", ["regReadArray"]))
        self.assertEqual(self.complete("-d", "fpga", "call", "regRead", "LED_S"),
                         ("words", ["LED_SYSTEM"]))

    def test_are_never_what_a_terminal_might_obey(self):
        path = self.list(b"0,A\x1b[31m,control,true,8\n1,AB,control,true,8\n")
        self.assertEqual(self.complete("-f", path, "read", "A")[1], ["AB"])

    def test_of_a_line_that_is_none(self):
        self.assertEqual(run("complete").code, 2)
        self.assertEqual(run("complete", "--line", "tarnreg", BREAKS).code, 2)


class Bash(CompletionTest):
    def complete(self, line):
        """COMPREPLY as bash would have it with the cursor at the end of `line`."""
        script = f"""
            source {BASH}
            COMP_LINE=$1 COMP_POINT=${{#1}} COMP_WORDBREAKS=$2
            _tarnreg tarnreg "$3" ""
            printf '%s\\n' "${{COMPREPLY[@]}}"
        """
        word = line.split(" ")[-1].split("=")[-1]
        done = subprocess.run(["bash", "--norc", "-c", script, "bash", line, BREAKS, word], env=self.env(),
                              capture_output=True, text=True, timeout=TIMEOUT, cwd=self.dir)
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def test_takes_lines_apart_as_it_does_itself(self):
        for line, found in (
            ("tarnreg rea", ["read"]),
            ("tarnreg  -d fpga   read FPGA_I", ["FPGA_ID"]),
            ("tarnreg -d fpga read FAN[0]_P", ["FAN\\[0\\]_PWM"]),
            ("tarnreg -d fpga read FAN\\[0\\]_P", ["FAN\\[0\\]_PWM"]),
            ("tarnreg -d fpga read 'FAN[0]_P", ["FAN[0]_PWM"]),
            ('tarnreg -d fpga read "FAN[0]_P', ["FAN[0]_PWM"]),
            ("tarnreg --base=h", ["hex"]),
            ("tarnreg --base=", ["bin", "dec", "hex"]),
            ("tarnreg -d fpga write LED_SY", ["LED_SYSTEM="]),
            ("echo x | sort; TARN_TRACE=1 tarnreg -d fpga read FPGA_I", ["FPGA_ID"]),
            ("tarnreg --file boa", ["board.toml"]),
            ("tarnreg nope", []),
        ):
            self.assertEqual(self.complete(line), found, line)

    def interactive(self, command, typed, wanted):
        """What a shell at a terminal answers to keys."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.chdir(self.dir)
            os.execvpe(command[0], command, self.env())
        output = b""
        try:
            for text, answer in typed:
                os.write(terminal, text.encode())
                deadline = time.monotonic() + TIMEOUT
                while answer.encode() not in output:
                    self.assertLess(time.monotonic(), deadline, output)
                    if select.select([terminal], [], [], 1)[0]:
                        output += os.read(terminal, 65536)
                if answer != wanted:
                    output = b""
        finally:
            os.close(terminal)
            os.kill(pid, 9)
            os.waitpid(pid, 0)

    def test_at_a_terminal(self):
        self.interactive(
            ["bash", "--norc", "-i"],
            ((f"source {BASH}; echo rea''dy\n", "ready\r\n"),
             ("tarnreg -d cp\tread FAN[7]_P\t| tr A-Z a-z\n", "fan[7]_pwm  0x00")),
            "fan[7]_pwm  0x00")

    @unittest.skipUnless(ZSH, "zsh is not installed: its completion is not tried")
    def test_of_zsh_at_a_terminal(self):
        folder = os.path.dirname(BASH)
        self.interactive(
            [ZSH or "zsh", "-f", "-i"],
            ((f"fpath=({folder} $fpath); autoload -U compinit; compinit -u -D; echo rea''dy\n", "ready\r\n"),
             ("tarnreg -d cp\tread FAN\\[7\\]_P\t| tr A-Z a-z\n", "fan[7]_pwm  0x00")),
            "fan[7]_pwm  0x00")


if __name__ == "__main__":
    unittest.main()
