"""Exports of a register list: a header that compiles, a page that can be searched, tables, JSON."""

import base64
import hashlib
import html.parser
import json
import os
import re
import shutil
import stat
import subprocess
import unittest

import jsonschema

from support import BOARD, HEADER, SOURCE, TIMEOUT, TarnregTest, run

CHROMIUM = shutil.which("chromium")

# Each of them would break out of something, or collide with another one as an identifier.
ODD = (
    b"0,A.B,control,true,8\n"
    b"1,A-B,control,true,8\n"
    b"2,A_B,control,true,8\n"
    b"3,A_B_2,control,true,8\n"
    b"4,A,control,true,8\n"
    b"5,A_ADDRESS,control,true,8\n"
    b"6,9LIVES,control,true,0\n"
    b"7,__init__,control,true,32\n"
    b"8,*/ int x; /*,control,true,8\n"
    b"9,??/,control,true,8\n"
    b"10,\\,control,true,8\n"
    b"11,\xe2\x82\xac,control,true,8\n"
    b"12,\xff,control,true,8\n"
    b"13,while,control,true,8\n"
    b"14,</script><script>document.title='owned'</script>,control,true,8\n"
    b"15,<img src=x onerror=\"document.title='owned'\">,control,true,8\n"
    b"16,&lt;b&gt;,control,true,8\n"
    b"17,a|b`c`,control,true,8\n"
    b"18,[x](http://example.com),control,true,8\n"
    b"19,\x1b[31m,control,true,8\n"
    b"20,REGISTER_COUNT,control,true,8\n"
    b"21,\xe2\x80\xaeRTL,control,true,8\n"
)


class Cells(html.parser.HTMLParser):
    """The text of a page's table, row by row, and every element that it has."""

    def __init__(self, page):
        super().__init__()
        self.rows = []
        self.tags = []
        self.attributes = []
        self._cell = None
        self.feed(page)

    def handle_starttag(self, tag, attributes):
        self.tags.append(tag)
        self.attributes += attributes
        if tag == "tr":
            self.rows.append([])
        elif tag in ("td", "th"):
            self._cell = ""

    def handle_data(self, data):
        if self._cell is not None:
            self._cell += data

    def handle_endtag(self, tag):
        if tag in ("td", "th"):
            self.rows[-1].append(self._cell)
            self._cell = None


class ExportTest(TarnregTest):
    def export(self, kind, *arguments, file=BOARD):
        result = run("--file", file, "export", "--format", kind, *arguments)
        self.assert_run(result, 0, err="")
        return result.out

    def odd(self):
        return self.list(ODD)


class Header(ExportTest):
    def compile(self, compiler, flags, source, name):
        path = self.write(name, source)
        done = subprocess.run(
            [compiler, *flags, "-Wall", "-Wextra", "-Werror", "-pedantic", "-I", self.dir, path,
             "-o", self.path("program")],
            capture_output=True, text=True, timeout=TIMEOUT,
        )
        self.assertEqual(done.stderr, "")
        self.assertEqual(done.returncode, 0)

    def both(self, source):
        for compiler, flags, name in (("gcc", ["-std=c99"], "program.c"),
                                      ("g++", ["-std=c++20"], "program.cpp")):
            self.compile(compiler, flags, source, name)
            done = subprocess.run([self.path("program")], capture_output=True, text=True,
                                  timeout=TIMEOUT)
            yield done.stdout

    def macros(self, header):
        return re.findall(r"^#define (\S+)", header, re.MULTILINE)

    def test_is_what_a_program_compiles_with(self):
        self.write("board.h", self.export("header"))
        source = (
            '#include "board.h"\n#include "board.h"\n#include <stdio.h>\n'
            "int main(void) {\n"
            '   printf("%x %u %x %d %d %u\\n", SWITCH_BOARD_FAN_1_PWM_ADDRESS,\n'
            "          SWITCH_BOARD_FAN_1_PWM_WIDTH, SWITCH_BOARD_FAN_1_PWM_MASK,\n"
            "          SWITCH_BOARD_FAN_1_PWM_WRITABLE, SWITCH_BOARD_FPGA_ID_WRITABLE,\n"
            "          SWITCH_BOARD_REGISTER_COUNT);\n"
            "   return 0;\n}\n"
        )
        for out in self.both(source):
            self.assertEqual(out, "44 8 ff 1 0 280\n")

    def test_has_valid_names_of_their_own_for_odd_registers(self):
        header = self.export("header", file=self.odd())
        self.write("odd.h", header)
        names = self.macros(header)
        self.assertEqual(len(names), len(set(names)))
        for name in names:
            self.assertRegex(name, r"^[A-Za-z][A-Za-z0-9_]*$")
            self.assertNotIn("__", name)
        values = [name for name in names if name.endswith("_ADDRESS")]
        self.assertEqual(len(values), ODD.count(b"\n"))
        source = '#include "odd.h"\n#include <stdio.h>\nint main(void) {\n'
        source += "".join(f'   printf("%u\\n", {name} / 4u);\n' for name in values)
        for out in self.both(source + "   return 0;\n}\n"):
            self.assertEqual(out.split(), [str(i) for i in range(len(values))])

    def test_takes_its_prefix_from_the_title(self):
        for title, prefix in (("my fpga", "MY_FPGA"), ("9", "REG_9"), ("\u20ac", "REG"),
                              ("*/ #error /*", "ERROR"), ("__x", "X")):
            header = self.export("header", "SCRATCH", "--title", title)
            self.assertIn(f"#define {prefix}_SCRATCH_ADDRESS 0x00000010u\n", header)
            self.write("t.h", header)
            self.compile("gcc", ["-std=c99"], '#include "t.h"\nint main(void) { return 0; }\n', "t.c")

    def test_does_not_depend_on_when_it_is_made(self):
        self.assertEqual(self.export("header"), self.export("header"))

    def test_of_a_list_of_an_absurd_size_compiles(self):
        lines = "".join(f"{i},R{i}.{'x' * 300},control,true,8\n" for i in range(2000))
        self.write("big.h", self.export("header", "--title", "big", file=self.list(lines.encode())))
        self.compile("gcc", ["-std=c99"], '#include "big.h"\nint main(void) '
                     "{ return BIG_REGISTER_COUNT == 2000u ? 0 : 1; }\n", "big.c")


class Markdown(ExportTest):
    def test_is_a_table(self):
        self.assertEqual(
            self.export("markdown", "FPGA_ID", "FAN[0]_PWM"),
            "# switch-board\n\n"
            "| Name | Address | Width | Access | Type |\n"
            "|---|---|---:|---|---|\n"
            "| `FPGA_ID` | `0x00000000` | 32 | ro | id |\n"
            "| `FAN[0]_PWM` | `0x00000040` | 8 | rw | control |\n",
        )

    def test_odd_names_break_nothing(self):
        lines = self.export("markdown", file=self.odd()).splitlines()
        rows = lines[4:]
        self.assertEqual(len(rows), ODD.count(b"\n"))
        for row in rows:
            self.assertEqual(row.count("|"), 6, row)
            self.assertNotRegex(re.sub(r"</?code>", "", row), "[<>]")
        self.assertIn("<code>a&#124;b&#96;c&#96;</code>", rows[17])


class Html(ExportTest):
    def test_has_every_register_as_text(self):
        page = Cells(self.export("html"))
        self.assertEqual(page.rows[0], ["Name", "Address", "Bits", "Access", "Type"])
        self.assertEqual(len(page.rows), 281)
        self.assertIn(["FAN[1]_PWM", "0x00000044", "8", "rw", "control"], page.rows)

    def test_needs_nothing_else(self):
        text = self.export("html")
        page = Cells(text)
        self.assertNotIn("link", page.tags)
        self.assertEqual([value for name, value in page.attributes if name in ("src", "href")], [])
        self.assertNotIn("://", text)

    def test_names_are_text_and_nothing_else(self):
        plain = Cells(self.export("html", "SCRATCH"))
        page = Cells(self.export("html", "--title", "</title><script>", file=self.odd()))
        self.assertEqual(set(page.tags), set(plain.tags))
        self.assertEqual(page.tags.count("script"), 1)
        self.assertEqual({name for name, _ in page.attributes}, {name for name, _ in plain.attributes})
        names = [row[0] for row in page.rows[1:]]
        self.assertIn("</script><script>document.title='owned'</script>", names)
        self.assertIn("&lt;b&gt;", names)
        self.assertIn(r"'\x1b[31m'", names)

    def test_browsers_are_told_to_run_its_own_script_only(self):
        text = self.export("html")
        script = text.split("<script>")[1].split("</script>")[0]
        digest = base64.b64encode(hashlib.sha256(script.encode()).digest()).decode()
        self.assertIn(f"script-src 'sha256-{digest}'", text)

    def browse(self, page, query=""):
        """The page as a browser has it, its scripts run."""
        done = subprocess.run(
            [CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             f"--user-data-dir={self.path('profile')}", "--dump-dom", f"file://{page}{query}"],
            capture_output=True, text=True, timeout=TIMEOUT,
        )
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def shown(self, dom):
        return [row for row in re.findall(r"<tr(.*?)><td>(.*?)</td>", dom) if "hidden" not in row[0]]

    @unittest.skipUnless(CHROMIUM, "chromium is not installed: the search is not tried in a browser")
    def test_the_search_shows_what_fits_and_counts_it(self):
        page = self.write("board.html", self.export("html"))
        dom = self.browse(page)
        self.assertEqual(len(self.shown(dom)), 280)
        self.assertIn("280 of 280 registers", dom)
        for query, names in (
            ("fan_present", ["FAN_PRESENT"]),
            ("FAN%5B*%5D_PWM", [f"FAN[{i}]_PWM" for i in range(8)]),
            ("0x44", ["FAN[1]_PWM"]),
            ("psu%20rw%20led", ["PSU[0]_LED", "PSU[1]_LED"]),
            ("nothing%20has%20this", []),
            ("%", []),
        ):
            dom = self.browse(page, "#q=" + query)
            self.assertEqual([name for _, name in self.shown(dom)], names, query)
            self.assertIn(f"{len(names)} of 280 registers", dom)

    @unittest.skipUnless(CHROMIUM, "chromium is not installed: hostile names are not tried in a browser")
    def test_a_browser_runs_nothing_that_a_name_says(self):
        dom = self.browse(self.write("odd.html", self.export("html", file=self.odd())))
        self.assertIn("<title>list: registers</title>", dom)
        self.assertIn("22 of 22 registers", dom)

    @unittest.skipUnless(CHROMIUM, "chromium is not installed: a large page is not tried in a browser")
    def test_ten_thousand_registers_can_be_searched(self):
        lines = "0,R[0:9999],status,false,32\n"
        page = self.write("big.html", self.export("html", file=self.list(lines.encode())))
        dom = self.browse(page, "#q=R%5B777%3F%5D")
        self.assertIn("10 of 10000 registers", dom)
        self.assertEqual(len(self.shown(dom)), 10)


class Json(ExportTest):
    def schema(self):
        with open(os.path.join(SOURCE, "docs", "schemas", "tarnreg-registers-1.schema.json")) as file:
            schema = json.load(file)
        jsonschema.Draft202012Validator.check_schema(schema)
        return jsonschema.Draft202012Validator(schema)

    def test_is_what_the_schema_says(self):
        schema = self.schema()
        schema.validate(json.loads(self.export("json")))
        document = json.loads(self.export("json", file=self.odd()))
        schema.validate(document)
        self.assertEqual(len(document["registers"]), 22)
        self.assertFalse(schema.is_valid({"schema": "tarnreg-registers/1"}))
        document["registers"][0]["type"] = "none"
        self.assertFalse(schema.is_valid(document))

    def test_says_of_a_register_what_its_list_says(self):
        document = json.loads(self.export("json", "FAN[1]_PWM", "FAN[1:2]_PWM"))
        self.assertEqual(document["title"], "switch-board")
        self.assertEqual(document["addressUnitsPerRegister"], 4)
        self.assertEqual([one["name"] for one in document["registers"]], ["FAN[1]_PWM", "FAN[2]_PWM"])
        self.assertEqual(
            document["registers"][0],
            {"name": "FAN[1]_PWM", "address": 68, "width": 8, "arraySize": 8, "type": "control",
             "writable": True, "accessWidth": 32},
        )


class AllFormats(ExportTest):
    def test_the_device_is_not_opened(self):
        for transport, address in (("i2c:/dev/none@0x50", 4), ("i2c:/dev/none@0x50?flavour=2", 4),
                                   ("pci:/dev/none/x", 16), ("spi:/dev/none", 4),
                                   ("smbus:3@0x50", 4), ("sorn:/dev/none@0x50", 4),
                                   ("mock:/nowhere/at/all", 16)):
            document = json.loads(self.export("json", "SCRATCH", "--transport", transport))
            self.assertEqual(document["registers"][0]["address"], address, transport)

    def test_a_device_of_the_board_file_gives_the_title(self):
        board = self.write("board.toml", f'[devices."my fpga"]\nlist = "{BOARD}"\ntransport = "mock:"\n')
        result = run("-b", board, "-d", "my fpga", "export", "--format", "markdown", "SCRATCH")
        self.assert_run(result, 0, err="")
        self.assertTrue(result.out.startswith("# my fpga\n"))

    def test_an_unknown_name_exports_nothing(self):
        result = run("--file", BOARD, "export", "--format", "header", "SCRACH", "FPGA_ID")
        self.assert_run(result, 3, "", "tarnreg: error: no register SCRACH; did you mean SCRATCH?\n")

    def test_a_list_that_is_none_is_told(self):
        path = self.write("no.csv", "number,name\n")
        self.assert_run(run("--file", path, "export", "--format", "json"), 1, "",
                        f"tarnreg: error: {path}: Wrong CSV header: Invalid argument; "
                        "tarnreg check says where\n")
        gone = self.path("gone.csv")
        result = run("--file", gone, "export", "--format", "json")
        self.assertEqual(result.code, 1)
        self.assertEqual(result.err.count(gone), 1)

    def test_a_format_is_needed(self):
        self.assertEqual(run("--file", BOARD, "export").code, 2)
        result = run("--file", BOARD, "export", "--format", "pdf")
        self.assertEqual(result.code, 2)
        self.assertIn("'pdf' is none of header, markdown, html, json", result.err)


class Output(ExportTest):
    def test_goes_to_the_file_as_a_whole(self):
        path = self.path("board.h")
        result = run("--file", BOARD, "export", "--format", "header", "--output", path)
        self.assert_run(result, 0, f"{path}  280 registers\n", "")
        with open(path) as file:
            self.assertEqual(file.read(), self.export("header"))
        self.assertEqual(os.listdir(self.dir), ["board.h"])

    def test_keeps_mode_and_link_of_a_file_that_is_there(self):
        path = self.write("real.h", "before")
        os.chmod(path, 0o640)
        os.symlink(path, self.path("link.h"))
        run("--file", BOARD, "export", "--format", "header", "-o", self.path("link.h"))
        self.assertTrue(os.path.islink(self.path("link.h")))
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o640)
        with open(path) as file:
            self.assertEqual(file.read(), self.export("header"))

    def test_failing_leaves_what_was_there(self):
        result = run("--file", BOARD, "export", "--format", "header", "-o", "/nowhere/board.h")
        self.assert_run(result, 1, "", "tarnreg: error: cannot write /nowhere/board.h: "
                        "No such file or directory\n")
        self.assert_run(run("--file", BOARD, "export", "--format", "header", "-o", self.dir), 1, "",
                        f"tarnreg: error: cannot write {self.dir}: Is a directory\n")
        path = self.write("kept.h", "before")
        self.assertEqual(run("--file", BOARD, "export", "--format", "json", "NOPE", "-o", path).code, 3)
        with open(path) as file:
            self.assertEqual(file.read(), "before")

    def test_may_be_a_device(self):
        self.assert_run(run("--file", BOARD, "export", "--format", "json", "-o", "/dev/full"), 1, "",
                        "tarnreg: error: cannot write /dev/full: No space left on device\n")

    def test_with_json_is_told_in_the_document(self):
        path = self.path("board.md")
        result = run("--file", BOARD, "--json", "export", "--format", "markdown", "-o", path)
        self.assertEqual(result.document["files"], [{"file": path, "registers": 280}])
        self.assertEqual(run("--file", BOARD, "--json", "export", "--format", "markdown").code, 2)


if __name__ == "__main__":
    unittest.main()
