"""The tarnreg command as a shell sees it: streams, exit codes, signals, files."""

import os
import pty
import select
import signal
import subprocess
import time
import unittest

from support import BOARD, HEADER, TARNREG, TIMEOUT, TarnregTest, environment, run

ESCAPE = "\x1b"


class Verbs(TarnregTest):
    def test_list(self):
        self.assert_run(
            run("--file", BOARD, "list", "FAN[0:1]_PWM", "FPGA_ID"),
            0,
            "FAN[0]_PWM  0x00000040   8 bits  rw  control\n"
            "FAN[1]_PWM  0x00000044   8 bits  rw  control\n"
            "FPGA_ID     0x00000000  32 bits  ro  id\n",
            "",
        )

    def test_list_shows_all_registers_by_address(self):
        lines = run("--file", BOARD, "list").out.splitlines()
        addresses = [int(line.split()[1], 16) for line in lines]
        self.assertEqual(addresses, sorted(addresses))
        self.assertIn("FPGA_ID", lines[0])

    def test_read(self):
        self.assert_run(
            run("--file", BOARD, "read", "SCRATCH", "LED_LOCATOR"),
            0,
            "SCRATCH      0x00000000\nLED_LOCATOR  0x0\n",
            "",
        )

    def test_write(self):
        self.assert_run(
            run("--file", BOARD, "write", "SCRATCH=0x1234", "--verify"),
            0,
            "SCRATCH  0x00001234\n",
            "",
        )

    def test_dump_leaves_configuration_registers_out(self):
        plain = run("--file", BOARD, "dump")
        everything = run("--file", BOARD, "dump", "--all")
        self.assert_run(plain, 0, err="")
        self.assertNotIn("CONFIG[", plain.out)
        self.assertEqual(len(everything.out.splitlines()) - len(plain.out.splitlines()), 5)

    def test_check(self):
        self.assert_run(run("check", BOARD, "--fail-on", "info"), 0, "", "")
        bad = self.list("0,A,id,true,33\n")
        self.assert_run(
            run("check", bad),
            1,
            f"{bad}:2:13: error: Unsupported register width: 33 is above 32\n",
            f"tarnreg: error: {bad} has 1 problem of severity error or above\n",
        )

    def test_describe(self):
        self.assertIn("TarnRegFile::TransportMethod\n", run("describe").out)
        result = run("describe", "TransportMethod")
        self.assert_run(result, 0, err="")
        self.assertIn("operation regRead(regName: String) -> U32\n", result.out)

    def test_call(self):
        self.assert_run(run("--file", BOARD, "call", "regNameToAddr", "SCRATCH"), 0, "16\n", "")
        self.assert_run(run("--file", BOARD, "call", "regWrite", "SCRATCH", "1"), 0, "", "")

    def test_values_are_shown_in_the_base_asked_for(self):
        for base, text in (("hex", "0x0a"), ("dec", "10"), ("bin", "0b00001010"), ("BIN", "0b00001010")):
            self.assert_run(
                run("--file", BOARD, "write", "SCRATCH_BYTE[0]=10", "--base", base),
                0,
                f"SCRATCH_BYTE[0]  {text}\n",
            )


class CommandLine(TarnregTest):
    def test_help_and_version(self):
        for arguments in (["--help"], ["-h"], ["write", "--help"], ["--version"]):
            result = run(*arguments)
            self.assert_run(result, 0, err="")
            self.assertTrue(result.out)
        self.assertRegex(run("--version").out, r"^tarnreg \d+\.\d+\.\d+\n$")

    def test_help_has_the_exit_codes(self):
        text = run("--help").out
        for words in ("3 unknown name", "5 an access of the device failed", "130", "REG_VALUES_FILE"):
            self.assertIn(words, text)

    def test_wrong_command_lines(self):
        for arguments, words in (
            ([], "a verb is needed"),
            (["raed", "A"], "no verb 'raed'; did you mean read?\nRun tarnreg --help"),
            (["help"], "no verb 'help'; did you mean --help?"),
            (["table", "lst"], "table has no verb 'lst'; did you mean list?"),
            (["shadow"], "shadow needs a verb: list, get, "),
            (["read", "A", "--jsno"], "no option '--jsno'; did you mean --json?"),
            (["--file", BOARD, "watch", "--count", "0"],
             "--count: '0' is no whole number from 1 to 4294967295\nRun tarnreg watch --help for"),
            (["--file", BOARD, "watch", "--interval", "x"],
             "--interval: 'x' is no time in seconds, from 0 to 31536000"),
            (["--file", BOARD, "diff"],
             "one of --with-device, --with-transport, --with-dump is needed"),
            (["--file", BOARD, "write", "SCRATCH=zz"],
             "SCRATCH=zz: 'zz' is no number from 0 to 0xffffffff"),
            (["list", "--nosuch"], "--nosuch"),
            (["list", "-x"], "-x"),
            (["list", "--base", "oct"], "'oct' is none of hex, dec, bin"),
            (["list", "--color", "red"], "'red' is none of auto, always, never"),
            (["check", BOARD, "--fail-on", "bad"], "'bad' is none of info, warning, error"),
            (["list", "--trace", "10"], "--trace"),
            (["list", "--trace", "-1"], "--trace"),
            (["list", "--trace", "x"], "--trace"),
            (["list"], "--file is needed"),
            (["--file", BOARD, "read"], "PATTERN"),
            (["--file", BOARD, "write"], "NAME=VALUE"),
            (["--file", BOARD, "call"], "OPERATION"),
            (["check"], "FILE"),
            (["--file", BOARD, "--transport", "usb:1", "list"], "transport 'usb:1' is not known"),
            (["--file"], "--file"),
        ):
            with self.subTest(arguments=arguments):
                result = run(*arguments)
                self.assert_run(result, 2, "")
                self.assertIn("tarnreg: error: ", result.err)
                self.assertIn(words, result.err)

    def test_global_options_stand_before_or_behind_the_verb(self):
        before = run("--file", BOARD, "--json", "--base", "dec", "read", "SCRATCH")
        behind = run("read", "SCRATCH", "--base", "dec", "--json", "-f", BOARD)
        between = run("--json", "read", "-f", BOARD, "SCRATCH", "--base=dec")
        self.assert_run(before, 0)
        self.assertEqual(before.out, behind.out)
        self.assertEqual(before.out, between.out)

    def test_exit_codes(self):
        for arguments, code in (
            (["read", "SCRATCH"], 0),
            (["read", "NOPE"], 3),
            (["read", "NOPE*"], 3),
            (["read", "SCRATCH", "NOPE"], 3),
            (["read", "FAN[0:8]_PWM"], 3),
            (["read", "FAN[3:0]_PWM"], 2),
            (["read", "FAN[0:4000000]_PWM"], 2),
            (["write", "FPGA_ID=1"], 4),
            (["write", "FPGA_ID=1", "--force"], 0),
            (["write", "FPGA_ID=1", "--dry-run"], 4),
            (["write", "SCRATCH=1", "--confirm"], 4),
            (["write", "SCRATCH"], 2),
            (["write", "SCRATCH=-1"], 2),
            (["write", "SCRATCH=4294967296"], 2),
            (["write", "LED_SYSTEM=4"], 2),
            (["write", "NOPE=1"], 3),
            (["call", "nosuch"], 3),
            (["call", "regRead", "NOPE"], 3),
            (["call", "regWrite", "SCRATCH", "-1"], 2),
            (["describe", "Nosuch"], 3),
        ):
            with self.subTest(arguments=arguments):
                result = run("--file", BOARD, *arguments)
                self.assertEqual(result.code, code, result.err)
                self.assertEqual("error: " in result.err, code != 0)

    def test_a_good_register_is_printed_beside_an_unknown_one(self):
        self.assert_run(
            run("--file", BOARD, "read", "SCRACH", "SCRATCH"),
            3,
            "SCRATCH  0x00000000\n",
            "tarnreg: error: no register SCRACH; did you mean SCRATCH?\n",
        )

    def test_names_that_look_like_something_else(self):
        board = self.list(
            "0,A,id,true,8\n1,[A],id,true,8\n2,read,id,true,8\n3,-D,id,true,8\n4,,id,true,8\n"
            "5,{},id,true,8\n6,%%,id,true,8\n7,a b,id,true,8\n8,--json,id,true,8\n9,X=Y,id,true,8\n"
        )
        for name in ("A", "[A]", "read", "-D", "{}", "%%", "a b", "--json", "X=Y"):
            with self.subTest(name=name):
                written = run("--file", board, "write", "--", name + "=7")
                self.assert_run(written, 0, f"{name}  0x07\n", "")
                self.assert_run(run("--file", board, "read", "--", name), 0, f"{name}  0x00\n", "")
        self.assert_run(run("--file", board, "read", ""), 0, "''  0x00\n", "")

    def test_arguments_of_call_keep_their_brackets_and_commas(self):
        board = self.list("0,[A;B],id,true,8\n")
        self.assert_run(run("--file", board, "call", "hasRegName", "[A;B]"), 0, "true\n", "")

    def test_an_empty_name_that_is_not_there(self):
        self.assert_run(
            run("--file", BOARD, "read", ""), 3, "", "tarnreg: error: no register ''\n"
        )


class Json(TarnregTest):
    def keys(self, *arguments, code=0):
        result = run("--file", BOARD, "--json", *arguments)
        self.assertEqual(result.code, code, result.err)
        document = result.document
        self.assertEqual(document["schema"], "tarnreg/1")
        self.assertEqual(document["exitCode"], code)
        return document, list(document)

    def test_list(self):
        document, keys = self.keys("list", "SCRATCH")
        self.assertEqual(keys, ["schema", "verb", "registers", "errors", "exitCode"])
        self.assertEqual(
            document["registers"],
            [{"name": "SCRATCH", "address": 16, "width": 32, "arraySize": 1, "type": "scratch", "writable": True}],
        )

    def test_read_and_dump(self):
        for verb in ("read", "dump"):
            document, keys = self.keys(verb, "SCRATCH_BYTE[1]")
            self.assertEqual(keys, ["schema", "verb", "registers", "errors", "exitCode"])
            self.assertEqual(document["verb"], verb)
            self.assertEqual(
                list(document["registers"][0]),
                ["name", "address", "width", "arraySize", "type", "writable", "value"],
            )
            self.assertEqual(document["registers"][0]["arraySize"], 4)

    def test_write(self):
        document, keys = self.keys("write", "SCRATCH=0xffffffff", "--dry-run")
        self.assertEqual(keys, ["schema", "verb", "registers", "dryRun", "errors", "exitCode"])
        self.assertIs(document["dryRun"], True)
        self.assertEqual(document["registers"][0]["value"], 4294967295)
        self.assertIs(self.keys("write", "SCRATCH=1")[0]["dryRun"], False)

    def test_check(self):
        bad = self.list("0,A,id,true,33\n")
        document = run("check", bad, "--json").document
        self.assertEqual(list(document), ["schema", "verb", "problems", "errors", "exitCode"])
        self.assertEqual(
            document["problems"],
            [{
                "file": bad, "line": 2, "column": 13, "severity": "error",
                "text": "Unsupported register width: 33 is above 32",
            }],
        )
        self.assertEqual(document["exitCode"], 1)

    def test_describe(self):
        document, keys = self.keys("describe", "TransportMethod")
        self.assertEqual(keys, ["schema", "verb", "types", "errors", "exitCode"])
        described = document["types"][0]
        self.assertEqual(list(described), ["name", "base", "attributes", "operations"])
        self.assertEqual(list(described["attributes"][0]), ["name", "type", "writable"])
        self.assertEqual(list(described["operations"][0]), ["name", "arguments", "result"])
        self.assertEqual(list(described["operations"][0]["arguments"][0]), ["name", "type"])

    def test_call(self):
        document, keys = self.keys("call", "regRead", "SCRATCH")
        self.assertEqual(keys, ["schema", "verb", "results", "errors", "exitCode"])
        self.assertEqual(document["results"], [{"type": "U32", "value": "0"}])
        collection = self.keys("call", "regList")[0]["results"]
        self.assertEqual(list(collection[0]), ["collection", "key", "value"])

    def test_failures(self):
        for arguments, code, name in (
            (["read", "NOPE"], 3, "unknown-name"),
            (["write", "FPGA_ID=1"], 4, "refused"),
            (["write", "SCRATCH=x"], 2, "usage"),
            (["write", "SCRATCH=1", "--confirm"], 4, "refused"),
        ):
            with self.subTest(arguments=arguments):
                document, _ = self.keys(*arguments, code=code)
                self.assertEqual(document["registers"], [])
                self.assertEqual(document["errors"][0]["code"], name)
                self.assertTrue(document["errors"][0]["text"])

    def test_a_device_that_does_not_open_has_a_document_too(self):
        result = run("--file", "/no/such", "--json", "list")
        self.assertEqual(result.code, 1)
        self.assertEqual(list(result.document), ["schema", "verb", "registers", "errors", "exitCode"])
        self.assertEqual(result.document["errors"][0]["code"], "general")

    def test_hostile_names(self):
        board = self.list(b"0,E\x1b[31m\xc2\x9b\xff\x7f,id,true,8\n")
        result = run("--file", board, "--json", "list")
        self.assertTrue(all(c == "\n" or " " <= c <= "~" for c in result.out))
        self.assertEqual(result.document["registers"][0]["name"], "E\x1b[31m\u009b\ufffd\x7f")


class Streams(TarnregTest):
    def test_messages_never_reach_standard_output(self):
        result = run("--file", BOARD, "write", "SCRATCH=1", "-i", stdin="y\n")
        self.assert_run(result, 0, "SCRATCH  0x00000001\n", "Write SCRATCH=0x1? [y/N] ")

    def test_a_full_device_is_a_failure(self):
        for arguments in (
            ["--file", BOARD, "list"], ["--file", BOARD, "read", "SCRATCH"], ["--help"],
            ["--version"], ["--file", BOARD, "--json", "list"], ["describe"],
        ):
            with self.subTest(arguments=arguments), open("/dev/full", "wb") as full:
                result = run(*arguments, stdout=full)
                self.assertEqual(result.code, 1)
                self.assertEqual(result.err, "tarnreg: error: cannot write the output\n")

    def test_a_closed_standard_output_is_a_failure_and_no_file_is_written_over(self):
        values = self.write("values.csv", "Address,Value\n16,7\n")
        result = run(
            "--file", BOARD, "-t", "mock:" + values, "dump", stdout=None, preexec_fn=lambda: os.close(1)
        )
        self.assertEqual(result.code, 1)
        self.assertEqual(result.err, "tarnreg: error: cannot write the output\n")
        self.assertIn("16,7", self.values())
        with open(BOARD) as file:
            self.assertTrue(file.read().startswith(HEADER))

    def test_all_streams_closed(self):
        def close_all():
            os.closerange(0, 3)

        values = self.path("values.csv")
        done = subprocess.run(
            [TARNREG, "-f", BOARD, "-t", "mock:" + values, "write", "SCRATCH=5", "NOPE=1"],
            preexec_fn=close_all, env=environment(), timeout=TIMEOUT,
        )
        self.assertEqual(done.returncode, 3)
        done = subprocess.run(
            [TARNREG, "-f", BOARD, "-t", "mock:" + values, "write", "SCRATCH=5"],
            preexec_fn=close_all, env=environment(), timeout=TIMEOUT,
        )
        self.assertEqual(done.returncode, 1, "what was written could not be said")
        self.assertEqual(self.values(), {"16,5"})

    def test_a_closed_standard_input_declines(self):
        result = run(
            "--file", BOARD, "write", "SCRATCH=1", "-i", preexec_fn=lambda: os.close(0)
        )
        self.assertEqual(result.code, 4)
        self.assertEqual(result.out, "")

    def test_a_reader_that_goes_away_makes_no_noise(self):
        board = self.list("".join(f"{i},REGISTER_{i},id,true,8\n" for i in range(20000)))
        for verb in ("list", "dump"):
            process = subprocess.Popen(
                [TARNREG, "--file", board, verb],
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment(),
            )
            self.assertTrue(process.stdout.readline().startswith(b"REGISTER_0"))
            process.stdout.close()
            self.assertEqual(process.stderr.read(), b"")
            process.stderr.close()
            self.assertEqual(process.wait(TIMEOUT), -signal.SIGPIPE)

    def test_nothing_is_coloured_in_a_pipe(self):
        result = run("--file", BOARD, "read", "NOPE", "SCRATCH")
        self.assertNotIn(ESCAPE, result.out + result.err)
        self.assertIn(ESCAPE, run("--file", BOARD, "read", "NOPE", "--color=always").err)
        self.assertNotIn(ESCAPE, run("--file", BOARD, "read", "SCRATCH", "--color=always").out)

    def test_values_of_a_dump_are_out_before_the_next_access(self):
        # A pipe as values file: the mock opens it to persist the first read, and hangs there.
        pipe = self.path("pipe")
        os.mkfifo(pipe)
        process = subprocess.Popen(
            [TARNREG, "--file", BOARD, "-t", "mock:" + pipe, "read", "FPGA_ID", "SCRATCH"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment(),
        )
        with process.stdout, process.stderr:
            while True:
                try:
                    end = os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)
                    break
                except OSError:  # it does not read yet
                    self.assertIsNone(process.poll(), "it ended instead of reading its values")
                    time.sleep(0.01)
            os.write(end, b"Address,Value\n0,171\n")
            os.close(end)
            self.assertEqual(process.stdout.readline(), b"FPGA_ID  0x000000ab\n")
            self.assertIsNone(process.poll())
            process.kill()
            process.wait(TIMEOUT)


class Terminal(TarnregTest):
    def on_terminal(self, *arguments, interaction=None, **env):
        """Runs tarnreg on a terminal of its own; returns its status and all that it showed."""
        child, master = pty.fork()
        if child == 0:
            os.execve(TARNREG, [TARNREG, *arguments], environment(**env))
        shown = b""
        deadline = time.monotonic() + TIMEOUT
        while True:
            self.assertLess(time.monotonic(), deadline, shown)
            if not select.select([master], [], [], 1)[0]:
                continue
            try:
                chunk = os.read(master, 4096)
            except OSError:  # the terminal's other side is closed
                break
            if not chunk:
                break
            shown += chunk
            if interaction and interaction[0] in shown:
                os.write(master, interaction[1])
                interaction = None
        os.close(master)
        return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), shown.decode()

    def test_errors_are_coloured_on_a_terminal(self):
        code, shown = self.on_terminal("--file", BOARD, "read", "NOPE", "SCRATCH")
        self.assertEqual(code, 3)
        self.assertIn("tarnreg: \x1b[1;31merror:\x1b[0m no register NOPE", shown)
        self.assertIn("SCRATCH  0x00000000", shown)

    def test_colour_can_be_turned_off(self):
        read = ["--file", BOARD, "read", "NOPE"]
        self.assertNotIn(ESCAPE, self.on_terminal(*read, NO_COLOR="1")[1])
        self.assertNotIn(ESCAPE, self.on_terminal(*read, "--color=never")[1])
        self.assertIn(ESCAPE, self.on_terminal(*read, NO_COLOR="")[1])
        self.assertIn(ESCAPE, self.on_terminal(*read, "--color=always", NO_COLOR="1")[1])

    def test_a_question_is_answered(self):
        values = self.path("values.csv")
        write = ["--file", BOARD, "-t", "mock:" + values, "write", "SCRATCH=1", "-i"]
        self.assertEqual(self.on_terminal(*write, interaction=(b"[y/N] ", b"n\n"))[0], 4)
        self.assertFalse(os.path.exists(values))
        self.assertEqual(self.on_terminal(*write, interaction=(b"[y/N] ", b"y\n"))[0], 0)
        self.assertEqual(self.values(), {"16,1"})

    def test_an_interrupt_at_the_question_writes_nothing(self):
        values = self.path("values.csv")
        code, _ = self.on_terminal(
            "--file", BOARD, "-t", "mock:" + values, "write", "SCRATCH=1", "-i",
            interaction=(b"[y/N] ", b"\x03"),
        )
        self.assertEqual(code, -signal.SIGINT)
        self.assertFalse(os.path.exists(values))

    def test_a_shell_sees_an_interrupt_as_130(self):
        master, slave = pty.openpty()
        shell = subprocess.Popen(
            ["bash", "-c", 'trap : INT; "$@"; echo "status $?"', "bash",
             TARNREG, "--file", BOARD, "write", "SCRATCH=1", "-i"],
            stdin=slave, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment(),
            start_new_session=True,
        )
        os.close(slave)
        with shell.stdout, shell.stderr:
            shown = b""
            while b"[y/N] " not in shown:
                chunk = shell.stderr.read1()
                self.assertTrue(chunk, shown)
                shown += chunk
            os.killpg(shell.pid, signal.SIGINT)
            self.assertEqual(shell.stdout.read(), b"status 130\n")
            shell.wait(TIMEOUT)
        os.close(master)


class Files(TarnregTest):
    def test_what_is_no_register_list(self):
        for path, words in (
            ("/no/such", "No such file or directory"),
            (self.dir, "Is a directory"),
            ("/dev/zero", "Error opening CSV file /dev/zero"),
            (self.write("empty", ""), "Wrong CSV header"),
            (self.write("binary", b"\0" * 100000), "Wrong CSV header"),
            (TARNREG, "Wrong CSV header"),
        ):
            for arguments in (["--file", path, "list"], ["check", path]):
                with self.subTest(arguments=arguments):
                    result = run(*arguments)
                    self.assertEqual(result.code, 1)
                    self.assertIn(words, result.err + result.out)
                    self.assertIn(path, result.err)

    @unittest.skipIf(os.geteuid() == 0, "root reads everything")
    def test_an_unreadable_list(self):
        board = self.list("0,A,id,true,8\n")
        os.chmod(board, 0)
        result = run("--file", board, "list")
        self.assertEqual(result.code, 1)
        self.assertIn("Permission denied", result.err)

    def test_reversed_bounds_do_not_crash_the_command(self):
        board = self.list("0,A,id,true,8\n1,B[3:1],id,true,8\n")
        self.assert_run(
            run("--file", board, "list"),
            1,
            "",
            f"tarnreg: error: {board}:3: the lower bound of a range is above the upper\n",
        )
        self.assertEqual(run("check", board).code, 1)

    def test_a_bad_list_is_named_with_the_way_to_find_out_more(self):
        for lines in ("x,A,id,true,8\n", "0,A,id,true,33\n", "0,A[x:1],id,true,8\n"):
            with self.subTest(lines=lines):
                board = self.list(lines)
                result = run("--file", board, "list")
                self.assertEqual(result.code, 1)
                self.assertIn(board, result.err)
                self.assertIn("tarnreg check says where", result.err)

    def test_a_list_from_a_pipe(self):
        done = subprocess.run(
            ["bash", "-c", '"$1" --file <(cat "$2") read SCRATCH', "bash", TARNREG, BOARD],
            stdout=subprocess.PIPE, env=environment(), timeout=TIMEOUT,
        )
        self.assertEqual((done.returncode, done.stdout), (0, b"SCRATCH  0x00000000\n"))

    def test_a_hostile_list_does_not_steer_the_terminal(self):
        board = self.list(b"0,E\x1b]0;x\x07\xc2\x9b1m\xff,\x1b[2J,\x1b[3J,8\n1,OK,id,false,8\n")
        for arguments in (
            ["--file", board, "list"], ["--file", board, "read", "*"], ["check", board],
            ["--file", board, "write", "*=1"], ["--file", board, "read", "O"],
            ["--file", board, "read", "E"], ["--file", board, "--json", "list"],
            ["--file", board, "write", "E*=1", "-i"], ["--file", board, "call", "regList"],
            ["--file", board, "call", "regAddrToName", "0"], ["--file", board, "--trace", "9", "list"],
            ["--file", board + "\x1b[31m", "list"], ["\x1b[31m"], ["list", "--\x1b[31m"],
        ):
            with self.subTest(arguments=arguments):
                result = run(*arguments)
                for c in result.out + result.err:
                    self.assertTrue(c == "\n" or (c >= " " and not "\x7f" <= c <= "\x9f"), repr(c))

    def test_one_register_of_a_large_list(self):
        board = self.list("".join(f"{i},REGISTER_{i},counter,false,32\n" for i in range(100000)))
        self.assert_run(
            run("--file", board, "read", "REGISTER_99999"), 0, "REGISTER_99999  0x00000000\n", ""
        )
        result = run("--file", board, "read", "REGISTR_99999")
        self.assertEqual(result.code, 3)
        self.assertIn("did you mean REGISTER_99999", result.err)


class Transports(TarnregTest):
    """Devices that are reached through what the kernel offers, or fail to be."""

    def setUp(self):
        super().setUp()
        self.bar = self.path("bar")
        with open(self.bar, "wb") as stream:
            stream.write(bytes(4096))

    def tarnreg(self, url, *arguments):
        return run("--file", BOARD, "--transport", url, *arguments)

    def test_a_mapped_file_is_a_device(self):
        url = f"pci:{self.bar}"
        self.assert_run(
            self.tarnreg(url, "write", "SCRATCH=0x1234", "--verify"), 0, "SCRATCH  0x00001234\n", ""
        )
        with open(self.bar, "rb") as stream:
            content = stream.read()
        self.assertEqual(content, bytes(16) + b"\x34\x12\0\0" + bytes(4076))
        self.assert_run(self.tarnreg(url, "read", "SCRATCH"), 0, "SCRATCH  0x00001234\n", "")

    def test_a_mapping_that_is_too_short_costs_only_the_registers_behind_its_end(self):
        with open(self.bar, "r+b") as stream:
            stream.truncate(16)
        self.assert_run(
            self.tarnreg(f"pci:{self.bar}", "read", "FPGA_ID", "SCRATCH"),
            5,
            "FPGA_ID  0x00000000\n",
        )

    def test_what_does_not_open_is_a_device_error(self):
        for url, reason in (
            ("pci:/nowhere/x", "Error opening PCI register space /nowhere/x: No such file or directory"),
            ("i2c:/nowhere@0x50", "Error opening I2C device '/nowhere': No such file or directory"),
            (
                f"i2c:{self.bar}@0x50",
                "Error setting peripheral address to 0x50: Inappropriate ioctl for device",
            ),
        ):
            self.assert_run(
                self.tarnreg(url, "read", "SCRATCH"), 5, "", f"tarnreg: error: {url}: {reason}\n"
            )

    def test_a_bad_list_is_blamed_before_a_bad_device(self):
        self.assert_run(
            run("--file", "/nowhere", "--transport", "i2c:/nowhere@0x50", "read", "A"),
            1,
            "",
            "tarnreg: error: Error opening CSV file /nowhere: No such file or directory\n",
        )

    def test_a_wrong_url_is_a_usage_error_and_opens_nothing(self):
        for url in ("i2c:/dev/i2c-0", "i2c:/dev/i2c-0@0x80", "pci:bar", "spi:", "usb:1"):
            result = self.tarnreg(url, "read", "SCRATCH")
            self.assertEqual((result.code, result.out), (2, ""), url)
            self.assertIn(f"transport '{url}'", result.err)

    def test_a_queued_write_that_fails_is_a_failed_write(self):
        self.assert_run(
            self.tarnreg("spi:/nowhere", "write", "SCRATCH=0x12"),
            5,
            "",
            "tarnreg: error: cannot write SCRATCH: SPI request 0: /nowhere: "
            "No such file or directory\n",
        )


class BoardFiles(TarnregTest):
    def setUp(self):
        super().setUp()
        self.list("0,A,id,true,32\n1,B,id,true,8\n")
        self.board = self.write(
            "board.toml",
            "[devices.fpga]\nlist = 'list.csv'\ntransport = 'mock:values.csv'\n"
            "[devices.cpld]\nlist = '/lists/cpld.csv'\ntransport = 'i2c:/dev/i2c-3@0x50'\n",
        )

    def test_devices_are_listed_by_name(self):
        self.assert_run(
            run("--board", self.board, "devices"),
            0,
            f"cpld  i2c:/dev/i2c-3@0x50  /lists/cpld.csv\nfpga  mock:values.csv  {self.dir}/list.csv\n",
            "",
        )
        document = run("devices", "--json", env={"TARN_BOARD": self.board}).document
        self.assertEqual(
            document["devices"][0],
            {"name": "cpld", "transport": "i2c:/dev/i2c-3@0x50", "list": "/lists/cpld.csv"},
        )

    def test_a_device_is_named_in_place_of_list_and_transport(self):
        device = ("--board", self.board, "--device", "fpga")
        self.assert_run(run(*device, "write", "A=0x12", "--verify"), 0, "A  0x00000012\n", "")
        # Beside the board file, wherever the command runs.
        self.assertEqual(self.values(), {"0,18"})
        self.assert_run(run("-d", "fpga", "read", "A", env={"TARN_BOARD": self.board}), 0, "A  0x00000012\n", "")

    def test_an_unknown_device_is_an_unknown_name(self):
        self.assert_run(
            run("--board", self.board, "--device", "fgpa", "read", "A"),
            3,
            "",
            f"tarnreg: error: {self.board} has no device fgpa; there is cpld, fpga\n",
        )

    def test_what_is_wrong_with_the_file_is_said_with_its_place(self):
        bad = self.write("bad.toml", "[devices.fpga]\nlist = 3\n")
        for verb in (["devices"], ["--device", "fpga", "read", "A"]):
            self.assert_run(
                run("--board", bad, *verb),
                1,
                "",
                f"tarnreg: error: {bad}:2:8: 'list' must be a string\n",
            )
        self.assert_run(
            run("devices"), 2, "", "tarnreg: error: --board is needed: the board file\n"
        )


class Values(TarnregTest):
    def test_a_path_keeps_values_for_the_next_process(self):
        device = ["--file", BOARD, "--transport", "mock:" + self.path("values.csv")]
        self.assert_run(run(*device, "write", "SCRATCH=0xffffffff"), 0)
        self.assertEqual(self.values(), {"16,4294967295"})
        self.assert_run(run(*device, "read", "SCRATCH"), 0, "SCRATCH  0xffffffff\n", "")

    def test_the_environment_names_the_file_too(self):
        env = {"REG_VALUES_FILE": self.path("values.csv")}
        self.assert_run(run("--file", BOARD, "write", "SCRATCH=5", env=env), 0)
        self.assert_run(run("--file", BOARD, "read", "SCRATCH", env=env), 0, "SCRATCH  0x00000005\n")

    def test_the_path_goes_before_the_environment(self):
        env = {"REG_VALUES_FILE": self.path("other.csv")}
        run("--file", BOARD, "-t", "mock:" + self.path("values.csv"), "write", "SCRATCH=5", env=env)
        self.assertEqual(self.values(), {"16,5"})
        self.assertFalse(os.path.exists(self.path("other.csv")))

    def test_without_a_file_nothing_is_kept(self):
        before = sorted(os.listdir(self.dir))
        run("--file", BOARD, "write", "SCRATCH=5", cwd=self.dir)
        self.assertEqual(sorted(os.listdir(self.dir)), before)
        self.assert_run(run("--file", BOARD, "read", "SCRATCH"), 0, "SCRATCH  0x00000000\n")

    def test_a_dry_run_and_a_refused_write_leave_no_file(self):
        device = ["--file", BOARD, "--transport", "mock:" + self.path("values.csv")]
        for arguments in (
            ["write", "SCRATCH=1", "--dry-run"], ["write", "FPGA_ID=1", "SCRATCH=1"],
            ["write", "SCRATCH=1", "-i"], ["list"],
        ):
            run(*device, *arguments)
            self.assertEqual(os.listdir(self.dir), [], arguments)

    def test_values_that_cannot_be_kept_are_a_failure(self):
        for path in (self.path("no/values.csv"), self.dir, BOARD + "/values.csv"):
            for verb in (["read", "SCRATCH"], ["write", "SCRATCH=1"]):
                with self.subTest(path=path, verb=verb):
                    result = run("--file", BOARD, "-t", "mock:" + path, *verb)
                    self.assert_run(result, 5, "")
                    self.assertIn(f"values file {path}: ", result.err)

    def test_a_bad_values_file_is_named(self):
        values = self.write("values.csv", "Address,Value\nx,1\n")
        result = run("--file", BOARD, "-t", "mock:" + values, "read", "SCRATCH")
        self.assert_run(
            result,
            1,
            "",
            f"tarnreg: error: values file {values}: a line does not hold two decimal numbers\n",
        )


class Tracing(TarnregTest):
    def setUp(self):
        super().setUp()
        self.board = self.list("0,A,nonsense,true,8\n")

    def test_is_off_by_default(self):
        self.assert_run(run("--file", self.board, "list"), 0, err="")

    def test_a_level_traces_the_library_on_standard_error(self):
        result = run("--file", self.board, "--trace", "8", "list")
        self.assertEqual(result.code, 0)
        self.assertIn("Unknown register type 'nonsense'", result.err)
        self.assertNotIn("Unknown", result.out)
        self.assert_run(run("--file", self.board, "--trace", "7", "list"), 0, err="")

    def test_the_environment_sets_levels_by_source(self):
        on = run("--file", self.board, "list", env={"TARN_TRACE": "TarnRegFile/*=8"})
        self.assertIn("Unknown register type 'nonsense'", on.err)
        off = run("--file", self.board, "list", env={"TARN_TRACE": "platform/*=8"})
        self.assertEqual(off.err, "")

    def test_the_option_goes_before_the_environment(self):
        result = run("--file", self.board, "--trace", "0", "list", env={"TARN_TRACE": "*=9"})
        self.assertEqual(result.err, "")


class LookingAgain(TarnregTest):
    """watch, poll and diff, on a mapped file that somebody else changes."""

    def setUp(self):
        super().setUp()
        self.bar = self.path("bar")
        with open(self.bar, "wb") as stream:
            stream.write(bytes(4096))
        self.where = ("--file", BOARD, "--transport", f"pci:{self.bar}")

    def scratch_is(self, value):
        with open(self.bar, "r+b") as stream:
            stream.seek(16)
            stream.write(value.to_bytes(4, "little"))

    def start(self, *arguments):
        process = subprocess.Popen(
            [TARNREG, *self.where, *arguments],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            env=environment(),
            text=True,
        )
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def test_watch_shows_each_change_until_it_is_interrupted(self):
        process = self.start("watch", "SCRATCH", "--interval", "0.005")
        self.assertEqual(process.stdout.readline(), "SCRATCH  0x00000000\n")
        for value in (1, 0xFFFFFFFF):
            self.scratch_is(value)
            self.assertEqual(process.stdout.readline(), f"SCRATCH  0x{value:08x}\n")
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=TIMEOUT)
        self.assertEqual((process.returncode, out, err), (-signal.SIGINT, "", ""))

    def test_watch_ends_after_its_rounds(self):
        result = run(*self.where, "watch", "SCRATCH", "--count", "3", "--interval", "0")
        self.assert_run(result, 0, "SCRATCH  0x00000000\n", "")

    def test_poll_waits_for_a_value(self):
        process = self.start("poll", "--until", "SCRATCH&0xf=3", "--timeout", str(TIMEOUT))
        self.scratch_is(0x53)
        out, err = process.communicate(timeout=TIMEOUT)
        self.assertEqual((process.returncode, out, err), (0, "SCRATCH  0x00000053\n", ""))

    def test_poll_gives_up(self):
        result = run(*self.where, "--json", "poll", "--until", "SCRATCH=3", "--timeout", "0.01")
        self.assertEqual(result.code, 6)
        self.assertEqual(result.document["errors"][0]["code"], "timeout")
        self.assertEqual(result.document["registers"], [])

    def test_diff_with_a_saved_dump_in_both_forms(self):
        for form in ((), ("--json",), ("--base", "bin")):
            self.scratch_is(1)
            dump = self.write("dump", run(*self.where, *form, "dump").out)
            self.assert_run(run(*self.where, "diff", "--with-dump", dump), 0, "", "")
            self.scratch_is(2)
            result = run(*self.where, "diff", "--with-dump", dump)
            self.assertEqual(result.code, 1)
            self.assertEqual(result.out.split(), ["SCRATCH", "0x00000002", "0x00000001"])
            self.assertRegex(result.err, r"^tarnreg: error: 1 of \d+ registers differ\n$")

    def test_diff_with_another_device(self):
        other = self.write("other", bytes(4096))
        self.scratch_is(7)
        self.assert_run(
            run(*self.where, "diff", "SCRATCH", "--with-transport", f"pci:{other}"),
            1,
            "SCRATCH  0x00000007  0x00000000\n",
            "tarnreg: error: 1 of 1 registers differ\n",
        )
        board = self.write(
            "board.toml",
            "".join(
                f'[devices.{name}]\nlist = "{BOARD}"\ntransport = "pci:{bar}"\n'
                for name, bar in (("a", self.bar), ("b", other))
            ),
        )
        result = run("-b", board, "-d", "a", "diff", "SCRATCH", "--with-device", "b")
        self.assert_run(result, 1, "SCRATCH  0x00000007  0x00000000\n")
        self.assertEqual(run("-b", board, "-d", "a", "diff", "--with-device", "c").code, 3)

    def test_bad_command_lines(self):
        for arguments in (
            ("diff",),
            ("diff", "--with-dump", "a", "--with-device", "b"),
            ("poll",),
            ("poll", "--until", "SCRATCH"),
            ("poll", "--until", "SCRATCH=1", "--timeout", "-1"),
            ("poll", "--until", "SCRATCH=1", "--timeout", "nan"),
            ("watch", "--interval", "inf"),
            ("watch", "--count", "0"),
            ("--json", "watch"),
        ):
            self.assertEqual(run(*self.where, *arguments).code, 2, arguments)


if __name__ == "__main__":
    unittest.main()
