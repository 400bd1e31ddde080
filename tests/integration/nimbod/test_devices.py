"""Devices behind nimbod, as tarnreg reaches them."""

import os
import shutil
import signal
import subprocess
import tempfile
import unittest

from daemon import TIMEOUT, Daemon

TARNREG = os.environ["TARNREG"]
LIST = """number,name,type,writeable,width
4660,ID,id,false,32
16,COUNT,counter,true,32
32,CTRL,control,true,16
48,BLOCK[0:3],control,true,32
"""

MAIN = "smbus:3@0x50"
FAULTY = "smbus:3@0x51"


class Devices(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="smbus-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.list = self.write("list.csv", LIST)

    def write(self, name, content):
        path = os.path.join(self.dir, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)
        return path

    def daemon(self, **options):
        daemon = Daemon(**options)
        self.addCleanup(daemon.__exit__)
        return daemon

    def command(self, *arguments, daemon=None, **options):
        env = {name: value for name, value in os.environ.items()
               if name not in ("NM_SOCKET_DIR", "NM_SOCKET_FILE", "TARN_TRACE", "TARN_BOARD")}
        if daemon:
            env["NM_SOCKET_DIR"] = daemon.directory
        return subprocess.Popen([TARNREG, *arguments], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=env,
                                **options)

    def run_on(self, transport, *arguments, daemon=None):
        with self.command("--file", self.list, "-t", transport, *arguments,
                          daemon=daemon) as process:
            out, err = process.communicate(timeout=TIMEOUT)
        return process.returncode, out, err

    def test_registers_are_written_and_read(self):
        daemon = self.daemon()
        for flavour in (1, 2):
            url = f"{MAIN}?flavour={flavour}"
            self.assertEqual((0, "ID     0xdeadbeef\nCOUNT  0x0000002a\n", ""),
                             self.run_on(url, "read", "ID", "COUNT", daemon=daemon))
            self.assertEqual((0, "CTRL  0x1234\n", ""),
                             self.run_on(url, "write", "CTRL=0x1234", "--verify", daemon=daemon))
            self.assertEqual((0, "CTRL  0x1234\n", ""),
                             self.run_on(url, "poll", "--until", "CTRL=0x1234", daemon=daemon))

    def test_the_url_names_the_socket(self):
        daemon = self.daemon()
        url = f"{MAIN}?socket={daemon.path}"
        self.assertEqual((0, "ID  0xdeadbeef\n", ""), self.run_on(url, "read", "ID"))

    def test_a_socket_of_a_board_file_is_beside_it(self):
        daemon = self.daemon()
        os.symlink(daemon.path, os.path.join(self.dir, "daemon"))
        board = self.write("board.toml", '[devices.main]\nlist = "list.csv"\n'
                                         f'transport = "{MAIN}?socket=daemon"\n')
        with self.command("-b", board, "-d", "main", "read", "ID", cwd="/") as process:
            out, err = process.communicate(timeout=TIMEOUT)
        self.assertEqual((0, "ID  0xdeadbeef\n", ""), (process.returncode, out, err))

    def test_devices_of_two_daemons_are_compared(self):
        one = self.daemon()
        other = self.daemon()
        self.run_on(MAIN, "write", "CTRL=1", daemon=one)
        self.run_on(MAIN, "write", "CTRL=2", daemon=other)
        named = f"{MAIN}?socket={one.path}"
        differ = "tarnreg: error: 1 of 1 registers differ\n"
        # The socket of one is not that of the other, which is the environment's.
        self.assertEqual((1, "CTRL  0x0001  0x0002\n", differ),
                         self.run_on(named, "diff", "--with-transport", MAIN, "CTRL", daemon=other))
        self.assertEqual((1, "CTRL  0x0002  0x0001\n", differ),
                         self.run_on(MAIN, "diff", "--with-transport", named, "CTRL", daemon=other))

    def test_what_the_daemon_cannot_do_is_told_in_its_words(self):
        daemon = self.daemon()
        code, out, err = self.run_on(FAULTY, "read", "ID", "COUNT", daemon=daemon)
        self.assertEqual((5, ""), (code, out))
        self.assertEqual(2, err.count("Nimbo failure: "), err)
        self.assertIn("tarnreg: error: cannot read ID: Nimbo failure: ", err)
        self.assertIn("0x51", err)
        code, out, err = self.run_on("smbus:77@0x50", "read", "ID", daemon=daemon)
        self.assertEqual((5, ""), (code, out))
        self.assertIn("77", err)

    def test_without_a_daemon_the_device_does_not_open(self):
        for socket, reason in ((f"{self.dir}/none", "No such file or directory"),
                               (self.list, "Connection refused")):
            url = f"{MAIN}?socket={socket}"
            code, out, err = self.run_on(url, "read", "ID")
            self.assertEqual((5, ""), (code, out))
            self.assertEqual(
                f"tarnreg: error: {url}: Error connecting to Nimbo daemon: {reason}; looked for at "
                f"{socket}: start nimbod, or say with ?socket=PATH, NM_SOCKET_DIR or NM_SOCKET_FILE "
                "where it listens\n", err)

    def test_a_socket_that_cannot_be_named_is_not_cut_off(self):
        code, out, err = self.run_on(f"{MAIN}?socket={self.dir}/{'x' * 100}", "read", "ID")
        self.assertEqual((5, ""), (code, out))
        self.assertIn("the path of a socket has 107 characters at most", err)

    def test_a_wrong_url_is_a_wrong_command_line(self):
        code, out, err = self.run_on("smbus:3", "read", "ID")
        self.assertEqual((2, ""), (code, out))
        self.assertIn("no address; the form is smbus:BUS@ADDRESS", err)

    def test_blocks_are_refused(self):
        daemon = self.daemon()
        for call in (("regReadArray", "BLOCK[0]", "2"), ("regWriteArray", "BLOCK[0]", "x'00000001'")):
            code, out, _ = self.run_on(MAIN, "call", *call, daemon=daemon)
            self.assertEqual((5, ""), (code, out))

    def test_a_daemon_that_goes_is_a_failed_access_and_no_signal(self):
        daemon = self.daemon()
        # The device is open when it asks.
        with self.command("--file", self.list, "-t", MAIN, "write", "CTRL=1", "COUNT=2", "--confirm",
                          daemon=daemon) as process:
            question = ""
            while not question.endswith("[y/N] "):
                byte = process.stderr.read(1)
                self.assertTrue(byte, question)
                question += byte
            daemon.kill()
            out, err = process.communicate("y\n", timeout=TIMEOUT)
        self.assertEqual((5, ""), (process.returncode, out))
        for name in ("CTRL", "COUNT"):
            self.assertIn(f"tarnreg: error: cannot write {name}: Error sending message to Nimbo "
                          "daemon: Broken pipe\n", err)

    def test_output_that_nobody_reads_still_ends_the_command(self):
        daemon = self.daemon()
        with self.command("--file", self.list, "-t", MAIN, "watch", "--interval", "0", "COUNT",
                          "--count", "1", daemon=daemon) as process:
            process.stdout.close()
            process.stdout = None
            process.communicate(timeout=TIMEOUT)
        self.assertEqual(-signal.SIGPIPE, process.returncode)

    def test_help_shows_the_form(self):
        with self.command("--help") as process:
            out, _ = process.communicate(timeout=TIMEOUT)
        self.assertIn("smbus:BUS@ADDRESS[?flavour=1|2", out)
        self.assertIn("NM_SOCKET_DIR", out)


if __name__ == "__main__":
    unittest.main()
