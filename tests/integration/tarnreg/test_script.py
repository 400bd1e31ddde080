"""Scripts: commands from standard input or a file, one a line, on one device."""

import os
import subprocess
import unittest

from support import BOARD, TARNREG, TIMEOUT, TarnregTest, environment, run


class ScriptTest(TarnregTest):
    def script(self, text, *arguments, **options):
        return run("--file", BOARD, *arguments, "script", stdin=text, **options)


class Commands(ScriptTest):
    def test_work_on_one_device(self):
        self.assert_run(
            self.script("write SCRATCH=0x12\nread SCRATCH\nlist SCRATCH\ndump SCRATCH\n"),
            0,
            "SCRATCH  0x00000012\n"
            "SCRATCH  0x00000012\n"
            "SCRATCH  0x00000010  32 bits  rw  scratch\n"
            "SCRATCH  0x00000012\n",
            "",
        )

    def test_have_the_options_that_they_have_at_a_shell(self):
        self.assert_run(
            self.script("write FPGA_ID=1 --force --verify\nwrite SCRATCH=9 --dry-run\nread SCRATCH\n"
                        "poll --until FPGA_ID=1 --timeout 1\nwatch FPGA_ID --count 1\n"
                        "call regNameToAddr SCRATCH\n"),
            0,
            "FPGA_ID  0x00000001\nSCRATCH  0x00000009\nSCRATCH  0x00000000\n"
            "FPGA_ID  0x00000001\nFPGA_ID  0x00000001\n16\n",
            "tarnreg: note: stdin:2: dry run: nothing was written\n",
        )

    def test_of_a_line_do_not_reach_into_the_next(self):
        self.assert_run(
            self.script("write SCRATCH=9 --dry-run\nwrite SCRATCH=8\nread SCRATCH\n"), 0,
            "SCRATCH  0x00000009\nSCRATCH  0x00000008\nSCRATCH  0x00000008\n",
        )

    def test_base_holds_for_all_lines(self):
        self.assert_run(self.script("write SCRATCH=0x12\nread SCRATCH\n", "--base", "dec"), 0,
                        "SCRATCH  18\nSCRATCH  18\n", "")

    def test_wait_and_echo(self):
        self.assert_run(self.script("wait 0\necho it is   'a  b' \"#\"\necho\n"), 0,
                        "it is a  b #\n\n", "")
        self.assert_run(self.script("echo '\x1b[31m'\n"), 0, "\\x1b[31m\n", "")
        self.assertEqual(self.script("wait -1\n").code, 2)
        self.assertEqual(self.script("wait\n").code, 2)

    def test_may_come_from_a_file_then_questions_can_be_answered(self):
        path = self.write("script", "write SCRATCH=1 --confirm\nread SCRATCH\n")
        result = run("--file", BOARD, "script", path, stdin="yes\n")
        self.assert_run(result, 0, "SCRATCH  0x00000001\nSCRATCH  0x00000001\n",
                        "Write SCRATCH=0x1? [y/N] ")
        result = run("--file", BOARD, "script", path, stdin="no\n")
        self.assertEqual(result.code, 4)
        self.assertIn(f"tarnreg: error: {path}:1: declined: nothing was written\n", result.err)
        self.assert_run(self.script("write SCRATCH=1 -i\ny\n"), 2, "",
                        "tarnreg: error: stdin:1: --confirm cannot ask: standard input is the script\n")

    def test_a_file_that_is_none_is_told(self):
        for path in (self.dir, self.path("none")):
            self.assert_run(run("--file", BOARD, "script", path), 1, "",
                            f"tarnreg: error: cannot read {path}\n")

    def test_are_done_before_the_next_line_is_asked_for(self):
        with subprocess.Popen([TARNREG, "--file", BOARD, "script", "-"], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True, bufsize=1, env=environment()) as child:
            for line, answer in (("write SCRATCH=3", "SCRATCH  0x00000003\n"),
                                 ("read SCRATCH", "SCRATCH  0x00000003\n"),
                                 ("list SCRATCH", "SCRATCH  0x00000010  32 bits  rw  scratch\n"),
                                 ("echo done", "done\n")):
                child.stdin.write(line + "\n")
                self.assertEqual(child.stdout.readline(), answer)
            child.stdin.close()
            self.assertEqual(child.wait(timeout=TIMEOUT), 0)


class Lines(ScriptTest):
    def test_may_be_empty_or_comments_or_dos_lines(self):
        self.assert_run(self.script("\n  \t\n# read NOPE\n   # x\nread SCRATCH # y\r\n\r\nread SCRATCH"),
                        0, "SCRATCH  0x00000000\nSCRATCH  0x00000000\n", "")
        self.assert_run(self.script(""), 0, "", "")

    def test_have_quotes_and_backslashes(self):
        path = self.list("0,A B,control,true,8\n1,C#D,control,true,8\n2,#E,control,true,8\n3,'F,control,true,8\n")
        result = run("--file", path, "script", stdin="read 'A B' C#D '#E' \\'F\nread A\\ B \"'F\" \\#E\n")
        self.assert_run(result, 0, "A B  0x00\nC#D  0x00\n#E   0x00\n'F   0x00\nA B  0x00\n'F   0x00\n#E   0x00\n", "")

    def test_that_cannot_be_taken_apart_are_told(self):
        for line, text in (
            ("read 'A", "the quote in column 6 is not closed"),
            ('read "A\\"', "the quote in column 6 is not closed"),
            ("read A\\", "nothing is behind the backslash at the end"),
        ):
            self.assert_run(self.script(f"\n{line}\n"), 2, "", f"tarnreg: error: stdin:2: {text}\n")

    def test_brackets_are_a_part_of_names(self):
        path = self.list("0,[A],control,true,8\n1,A,control,true,8\n")
        self.assert_run(run("--file", path, "script", stdin="write [A]=5\nread [A] A\n"), 0,
                        "[A]  0x05\n[A]  0x05\nA    0x00\n", "")


class Failures(ScriptTest):
    def test_have_the_line_and_end_the_script(self):
        self.assert_run(
            self.script("\nread SCRATCH\nread SCRACH\nwrite SCRATCH=1\n"), 3,
            "SCRATCH  0x00000000\n",
            "tarnreg: error: stdin:3: no register SCRACH; did you mean SCRATCH?\n",
        )

    def test_have_the_exit_code_of_what_failed(self):
        for line, code in (("write FPGA_ID=1", 4), ("write LED_SYSTEM=9", 2), ("read NOPE", 3),
                           ("poll --until SCRATCH=1 --timeout 0", 6), ("bogus", 2), ("read", 2),
                           ("read SCRATCH --file x", 2), ("script", 2), ("read --bogus", 2)):
            result = self.script(line + "\nread SCRATCH\n")
            self.assertEqual((result.code, result.out), (code, ""), line)
            self.assertTrue(result.err.startswith("tarnreg: error: stdin:1: "), result.err)

    def test_with_keep_going_are_passed_and_the_first_decides(self):
        result = run("--file", BOARD, "script", "--keep-going",
                     stdin="read NOPE\nread 'x\nwrite FPGA_ID=1\nread SCRATCH\n")
        self.assertEqual((result.code, result.out), (3, "SCRATCH  0x00000000\n"))
        self.assertEqual([line.split(": ")[2] for line in result.err.splitlines()],
                         ["stdin:1", "stdin:2", "stdin:3"])

    def test_of_the_device_itself_come_first(self):
        result = run("--file", BOARD, "--transport", "i2c:/dev/none@0x50", "script",
                     "--keep-going", stdin="read SCRATCH\nread FPGA_ID\n")
        self.assertEqual((result.code, result.out), (5, ""))
        self.assertEqual(len(result.err.splitlines()), 1)
        self.assertTrue(result.err.startswith("tarnreg: error: i2c:/dev/none@0x50: "), result.err)

    def test_of_a_name_that_a_terminal_might_obey_stay_text(self):
        result = self.script("\x1b[31m\n")
        self.assertEqual(result.err, "tarnreg: error: stdin:1: no verb '\\x1b[31m'\n")


class Json(ScriptTest):
    def test_has_every_line(self):
        result = run("--file", BOARD, "--json", "script", "-k",
                     stdin="write SCRATCH=1\n\nread NOPE SCRATCH\necho hi\n'\n")
        self.assertEqual(result.code, 3)
        document = result.document
        self.assertEqual((document["schema"], document["verb"], document["exitCode"]),
                         ("tarnreg/1", "script", 3))
        commands = document["commands"]
        self.assertEqual([(one["line"], one["verb"], one["exitCode"]) for one in commands],
                         [(1, "write", 0), (3, "read", 3), (4, "echo", 0)])
        self.assertEqual(commands[0]["registers"][0]["value"], 1)
        self.assertEqual([one["name"] for one in commands[1]["registers"]], ["SCRATCH"])
        self.assertEqual(commands[2]["texts"], [{"text": "hi"}])
        self.assertEqual([(one["line"], one["code"]) for one in document["errors"]],
                         [(3, "unknown-name"), (5, "usage")])


if __name__ == "__main__":
    unittest.main()
