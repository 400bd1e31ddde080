"""The help of every program and of every verb: what it does, examples, and then the options."""

import os
import re
import subprocess
import sys
import unittest

BIN = sys.argv.pop(1)
TIMEOUT = 100


def help_of(program, *verbs):
    done = subprocess.run([os.path.join(BIN, program), *verbs, "--help"], capture_output=True,
                          text=True, timeout=TIMEOUT)
    assert done.returncode == 0 and done.stderr == "", done
    return done.stdout


def verbs_of(text):
    """The verbs that a help lists."""
    if "\nSubcommands:\n" not in text:
        return []
    block = text.split("\nSubcommands:\n")[1].split("\n\n")[0]
    return re.findall(r"^  (\S+)", block, re.MULTILINE)


class Help(unittest.TestCase):
    def check(self, program, *verbs):
        text = help_of(program, *verbs)
        what = " ".join((program, *verbs))
        head, *rest = text.split("\nUsage: ")
        self.assertEqual(len(rest), 1, what)
        self.assertRegex(head, r"\n\nExamples?:\n  \S", what)
        examples = re.split(r"\n\nExamples?:\n", head)[1].split("\n\n")[0]
        self.assertIn(" ".join(verbs[-1:] or (program,)), examples, what)
        self.assertNotIn("\n\n\n", text, what)
        for line in text.splitlines():
            self.assertLessEqual(len(line), 120, what)
        found = verbs_of(text)
        for verb in found:
            self.check(program, *verbs, verb)
        return found

    def test_begins_with_examples(self):
        verbs = self.check("tarnreg")
        self.assertIn("read", verbs)
        self.assertIn("shadow", verbs)
        self.assertNotIn("complete", verbs)
        self.check("nimboctl")
        for program in ("tarnsim", "nimbod", "tarn-shadowd"):
            self.check(program)


if __name__ == "__main__":
    unittest.main()
