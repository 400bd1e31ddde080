"""What docs/security.md says to be shown by a test has a test of that name."""

import os
import re
import sys
import unittest

SOURCE = sys.argv.pop(1) if len(sys.argv) > 1 else os.environ["TARN_SOURCE"]


def text_of(path):
    with open(path, encoding="utf-8") as stream:
        return stream.read()


def files(ending):
    for folder, _, names in os.walk(os.path.join(SOURCE, "tests")):
        for name in names:
            if name.endswith(ending):
                yield os.path.join(folder, name)


class Claims(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        page = text_of(os.path.join(SOURCE, "docs", "security.md"))
        cls.named = re.findall(r"`([A-Za-z0-9]+\.[A-Z][A-Za-z0-9]+)`", page)
        cls.functions = re.findall(r"`(test_[a-z0-9_]+\.py): (test_[a-z0-9_]+)`", page)
        cls.fuzzers = re.findall(r"`(fuzz_[a-z_]+)`", page)
        cls.page = page

    def test_the_page_names_what_shows_its_claims(self):
        self.assertGreater(len(self.named), 40)
        self.assertGreater(len(self.functions), 15)
        self.assertGreater(len(self.fuzzers), 5)
        # Between the headings of a table and its end, every row has something in its last cell.
        for table in re.findall(r"\| claim \| shown by \|\n\|---\|---\|\n((?:\|.*\n)+)", self.page):
            for row in table.splitlines():
                self.assertRegex(row.split("|")[-2], r"`(fuzz_|test_|[A-Z])", row)

    def test_the_tests_are_there(self):
        declared = set()
        for path in files(".cpp"):
            for suite, name in re.findall(r"\bTEST(?:_[FP])?\(\s*(\w+),\s*(\w+)", text_of(path)):
                declared.add(f"{suite}.{name}")
        self.assertEqual([name for name in self.named if name not in declared], [])

    def test_the_functions_are_there(self):
        declared = set()
        for path in files(".py"):
            for name in re.findall(r"def (test_\w+)", text_of(path)):
                declared.add((os.path.basename(path), name))
        self.assertEqual([one for one in self.functions if one not in declared], [])

    def test_the_fuzzers_are_there(self):
        made = text_of(os.path.join(SOURCE, "tests", "fuzz", "CMakeLists.txt"))
        self.assertEqual([one for one in self.fuzzers if f"fuzzer({one} " not in made], [])


if __name__ == "__main__":
    unittest.main()
