"""tarnsim as a process: programs that know nothing of it, run with a simulated board. The I2C tools
are independent of us: what they read, they read by their own idea of the protocol."""

import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

TARNSIM = os.environ["TARNSIM"]
CLIENT = os.environ["TARNSIM_CLIENT"]
SOURCE = os.environ["TARN_SOURCE"]
TARNREG = os.environ["TARNREG"]
TIMEOUT = 100

BOARD = """
[devices.ignored]
transport = "mock:"

[simulate.i2c.fpga]
bus = "/dev/i2c-3"
address = 0x50
kind = "block"
values = { 0x1234 = 0xaabbccdd }

[simulate.i2c.monitor]
bus = "/dev/i2c-3"
address = 0x51
kind = "word"
values = { 0x20 = 0x1234 }

[simulate.i2c.eeprom]
bus = "/dev/i2c-3"
address = 0x53
kind = "bytes"
values = { 0x10 = 3, 0x11 = 7, 0x12 = 8, 0x13 = 9 }

[simulate.i2c.slow]
bus = "/dev/i2c-4"
address = 0x52
kind = "bytes"
delay_us = 60_000_000

[simulate.spi.led]
device = "/dev/spidev0.1"

[simulate.pci.bar]
function = "0000:ff:00.0"
size = 8192
vendor = 0x1af4
values = { 0x10 = 0x12345678 }
"""


class Result:
    def __init__(self, done):
        self.code = done.returncode
        self.out = done.stdout.decode()
        self.err = done.stderr.decode()


class TarnsimTest(unittest.TestCase):
    maxDiff = None
    prefix = []

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="tarnsim-test-")
        os.chmod(self.dir, 0o777)
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.board = self.write("board.toml", BOARD)
        self.log = self.path("wire.log")

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, text):
        with open(self.path(name), "w") as file:
            file.write(text)
        return self.path(name)

    def arguments(self, *command, board=None, options=()):
        return [*self.prefix, TARNSIM, "--board", board or self.board, *options, "--", *command]

    def run_raw(self, *arguments, env=None, **more):
        done = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              stdin=subprocess.DEVNULL, timeout=TIMEOUT,
                              env={**os.environ, **(env or {})}, **more)
        return Result(done)

    def sim(self, *command, **more):
        return self.run_raw(*self.arguments(*command, **more))

    def shell(self, script, *options, board=None):
        return self.sim("sh", "-c", script, options=options, board=board)

    def scenario(self, name):
        result = self.sim(CLIENT, name, options=("--control", self.path("control")))
        self.assertEqual((result.code, result.err), (0, ""))

    def wire(self):
        with open(self.log) as file:
            return file.read().splitlines()


class Clients(TarnsimTest):
    def test_the_i2c_tools_read_what_is_on_the_board(self):
        result = self.shell(
            "i2cget -y 3 0x51 0x20 w; i2cset -y 3 0x51 0x20 0xbeef w; i2cget -y 3 0x51 0x20 w;"
            "i2ctransfer -y 3 w2@0x50 0x12 0x34 r4; i2cget -y 3 0x53 0x10; i2cget -y 3 0x53 0x10 s;"
            "i2cget -y 3 0x53 0x11 i 2", "--wire-log", self.log)
        self.assertEqual(result.code, 0, result.err)
        self.assertEqual(
            result.out.splitlines(),
            ["0x1234", "0xbeef", "0xaa 0xbb 0xcc 0xdd", "0x03", "0x07 0x08 0x09", "0x07 0x08"])
        self.assertEqual(self.wire(), [
            "i2c-3: S 51 W 20 | Sr 51 R 34 12 P",
            "i2c-3: S 51 W 20 ef be P",
            "i2c-3: S 51 W 20 | Sr 51 R ef be P",
            "i2c-3: S 50 W 12 34 | Sr 50 R aa bb cc dd P",
            "i2c-3: S 53 W 10 | Sr 53 R 03 P",
            "i2c-3: S 53 W 10 | Sr 53 R 03 07 08 09 P",
            "i2c-3: S 53 W 11 | Sr 53 R 07 08 P",
        ])

    def test_i2cdetect_finds_the_devices_and_no_others(self):
        result = self.shell("i2cdetect -y -a 3")
        found = {cell for line in result.out.splitlines()[1:] for cell in line.split()[1:]}
        self.assertEqual(found, {"50", "51", "53", "--"}, result.err)

    def test_i2cdump_shows_all_bytes(self):
        result = self.shell("i2cdump -y 3 0x53 b | sed -n 3p")
        self.assertEqual(result.out.split()[:5], ["10:", "03", "07", "08", "09"], result.err)

    def test_an_absent_device_is_an_error(self):
        result = self.shell("i2cget -y 3 0x23 0", "--wire-log", self.log)
        self.assertNotEqual(result.code, 0)
        self.assertEqual(self.wire(), ["i2c-3: S 23 W NAK P"])

    def test_the_log_of_a_single_bus_has_nothing_in_front(self):
        board = self.write("one.toml", '[simulate.i2c.a]\nbus = "/dev/i2c-7"\naddress = 0x51\n'
                                       'kind = "word"\n')
        self.assertEqual(self.shell("i2cget -y 7 0x51 1 w", "--wire-log", self.log,
                                    board=board).code, 0)
        self.assertEqual(self.wire(), ["S 51 W 01 | Sr 51 R 00 00 P"])

    def test_tarnreg_reads_and_writes_registers(self):
        board = os.path.join(SOURCE, "examples", "switch-board.toml")
        script = " && ".join(f"{TARNREG} --board {board} --device {device} {verb}" for device, verb in (
            ("fpga-i2c", "read FPGA_ID"), ("fpga-i2c", "write SCRATCH=0x1234"),
            ("fpga-i2c", "read SCRATCH"), ("fpga-pci", "read FPGA_ID")))
        result = self.shell(script, board=board)
        self.assertEqual(result.code, 0, result.err)
        self.assertEqual(result.out.splitlines(), [
            "FPGA_ID  0x5441524e", "SCRATCH  0x00001234", "SCRATCH  0x00001234",
            "FPGA_ID  0x5441524e"])

    def tarnreg(self, *commands, front=""):
        """Runs tarnreg on a board of its own, once with each of these arguments; the last result
        of the shell counts."""
        self.write("list.csv", "number,name,type,writeable,width\n"
                               "16,WIDE,led,true,32\n20,HALF,led,true,16\n24,BYTE,led,true,8\n"
                               "32,WORD,led,true,16\n")
        board = self.write("tarnreg.toml", BOARD.replace('[devices.ignored]\ntransport = "mock:"\n', """
[devices.block]
list = "list.csv"
transport = "i2c:/dev/i2c-3@0x50"
[devices.word]
list = "list.csv"
transport = "i2c:/dev/i2c-3@0x51?flavour=2"
[devices.spi]
list = "list.csv"
transport = "spi:/dev/spidev0.1"
"""))
        return self.shell(
            front + "; ".join(f"{TARNREG} --board {board} --device {c}" for c in commands),
            "--wire-log", self.log, "--control", self.path("control"), board=board)

    def test_tarnreg_verifies_narrow_registers_where_their_values_are(self):
        result = self.tarnreg("block write HALF=0x12340000 --verify && true",
                              "block poll --until HALF=0x12340000 --timeout 1",
                              "block read HALF BYTE")
        self.assertEqual((result.code, result.err), (0, ""))
        self.assertEqual(result.out.splitlines()[-2:], ["HALF  0x12340000", "BYTE  0x00"])
        self.assertIn("i2c-3: S 50 W 00 14 12 34 00 00 P", self.wire())

    def test_tarnreg_refuses_bits_that_a_narrow_register_does_not_have(self):
        for verb in ("write HALF=0x1234", "poll --until HALF=0x1234"):
            result = self.tarnreg(f"block {verb}")
            self.assertEqual((result.code, result.out), (2, ""))
            self.assertIn("0x1234 does not fit in the 16 bits of HALF, which on this device are "
                          "0xffff0000", result.err)
            self.assertEqual(self.wire(), [])

    def test_tarnreg_speaks_both_flavours(self):
        result = self.tarnreg("word write WORD=0xabcd --verify")
        self.assertEqual((result.code, result.out), (0, "WORD  0xabcd\n"), result.err)
        self.assertEqual(self.wire(), ["i2c-3: S 51 W 20 cd ab P",
                                       "i2c-3: S 51 W 20 | Sr 51 R cd ab P"])

    def test_tarnreg_waits_for_what_is_queued_for_spi(self):
        result = self.tarnreg("spi write WIDE=0xabcd", "spi call regWrite WIDE 0x1234")
        self.assertEqual((result.code, result.err), (0, ""))
        lost = self.tarnreg("spi call regWrite WIDE 1",
                            front=f"{TARNSIM} control lose led >/dev/null; ")
        self.assertEqual(lost.code, 5)
        self.assertIn("cannot call regWrite: SPI request 0: ", lost.err)

    def test_tarnreg_asks_no_device_for_what_its_transport_cannot_do(self):
        for device, verb, reason in (
            ("block", "call regReadArray WIDE 2",
             "cannot call regReadArray: this transport has no block access"),
            ("spi", "dump", "a device behind SPI can only be written, not read"),
            ("spi", "write WIDE=1 --verify", "a device behind SPI can only be written, not read"),
            ("spi", "poll --until WIDE=1", "a device behind SPI can only be written, not read"),
        ):
            result = self.tarnreg(f"{device} {verb}")
            self.assertEqual((result.code, result.out), (5, ""), result.err)
            self.assertEqual(result.err, f"tarnreg: error: {reason}\n")
            self.assertEqual(self.wire(), [])

    def test_descriptors_share_an_address_as_they_share_a_file(self):
        self.scenario("sharing")

    def test_errors_are_the_kernels(self):
        self.scenario("errors")

    def test_what_is_not_ours_goes_on_to_the_kernel(self):
        self.scenario("others")

    def test_locks_end_with_their_descriptor(self):
        self.scenario("locks")

    def test_many_threads(self):
        self.scenario("threads")

    def test_many_processes(self):
        self.scenario("processes")

    def test_a_slow_bus_holds_up_nobody_else_and_killed_clients_do_no_harm(self):
        self.scenario("slow_bus")

    def test_signals_in_the_middle_of_transfers(self):
        self.scenario("signals")

    def test_spi(self):
        self.scenario("spi")

    def test_pci_with_loss_and_return(self):
        self.scenario("pci")


class View(TarnsimTest):
    def test_the_rest_of_dev_and_sys_is_as_ever(self):
        before = set(os.listdir("/dev"))
        devices = set(os.listdir("/sys/bus/pci/devices")) if os.path.isdir("/sys/bus/pci/devices") else set()
        result = self.shell("ls -A /dev; echo /; ls -A /sys/bus/pci/devices; echo x > /dev/null && "
                            "head -c 4 /dev/urandom | wc -c; cat /sys/bus/pci/devices/0000:ff:00.0/vendor")
        self.assertEqual(result.err, "")
        lines = result.out.splitlines()
        split = lines.index("/")
        self.assertEqual(set(lines[:split]) - {"core"},
                         (before | {"i2c-3", "i2c-4", "spidev0.1"}) - {"core"})
        self.assertEqual(set(lines[split + 1:-2]), devices | {"0000:ff:00.0"})
        self.assertEqual(lines[-2:], ["4", "0x1af4"])

    def test_nothing_of_the_host_changes(self):
        with open("/proc/self/mountinfo") as file:
            before = file.read()
        entries = sorted(os.listdir("/dev"))
        self.assertEqual(self.shell("test -e /dev/i2c-3").code, 0)
        with open("/proc/self/mountinfo") as file:
            self.assertEqual(file.read(), before)
        self.assertEqual(sorted(os.listdir("/dev")), entries)

    def test_the_command_is_who_it_was(self):
        expected = self.run_raw(*self.prefix, "sh", "-c", "id -u; id -g; pwd").out
        self.assertEqual(self.shell("id -u; id -g; pwd").out, expected)


class Chroot(TarnsimTest):
    """A root directory that is a folder of a larger file system, with what a program needs in it."""

    FOLDERS = ("usr", "bin", "lib", "lib64", "proc", "dev", "sys")

    def in_chroot(self, before, command):
        root = self.path("root")
        script = ["set -e", before.replace("ROOT", root)]
        for folder in [f"/{name}" for name in self.FOLDERS] + [os.path.dirname(TARNSIM)]:
            if os.path.isdir(folder):
                os.makedirs(root + folder, exist_ok=True)
                script.append(f"mount --rbind {folder} {root}{folder}")
        shutil.copy(self.board, root)
        libraries = os.path.join(os.path.dirname(os.path.dirname(TARNSIM)), "lib")
        if os.path.isdir(libraries):
            os.makedirs(root + libraries, exist_ok=True)
            script.append(f"mount --rbind {libraries} {root}{libraries}")
        script.append(f"exec chroot {root} {TARNSIM} --board /board.toml -- {command}")
        # Nobody makes a user namespace in a chroot, where root needs none.
        user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
        return self.run_raw("unshare", *user, "--mount", "sh", "-c", "\n".join(script))

    def test_whose_directory_is_no_mount_point_is_refused_with_the_remedy(self):
        result = self.in_chroot("", "touch /dev/spidev0.1")
        self.assertEqual(
            (result.code, result.out, result.err),
            (125, "", "tarnsim: the root directory is no mount point, as in a chroot, and what is "
                      "mounted here could be seen outside; mount --bind DIRECTORY DIRECTORY before "
                      "the chroot makes it one\n"))

    def test_whose_directory_is_bound_to_itself_is_a_root_like_any_other(self):
        result = self.in_chroot("mount --rbind ROOT ROOT", "ls /dev/spidev0.1")
        self.assertEqual((result.code, result.out, result.err), (0, "/dev/spidev0.1\n", ""))


class Ends(TarnsimTest):
    def test_the_commands_status_is_ours(self):
        self.assertEqual(self.shell("exit 7").code, 7)
        self.assertEqual(self.shell("kill -9 $$").code, 128 + 9)
        self.assertEqual(self.sim("true").code, 0)

    def test_what_cannot_be_run(self):
        result = self.sim("no-such-command-here")
        self.assertEqual(result.code, 127)
        self.assertIn("no-such-command-here: No such file or directory", result.err)
        self.assertEqual(self.sim("/etc/passwd").code, 126)

    def test_one_supervisor_cannot_run_under_another(self):
        result = self.sim(TARNSIM, "--board", self.board, "--", "true")
        self.assertEqual(result.code, 125)
        self.assertIn("the kernel forbids a second supervisor", result.err)

    def test_wrong_usage(self):
        for arguments in ((), ("--board", self.board), ("true",), ("--nonsense", "true"),
                          ("--board",), ("control",), ("--board", self.board, "--check", "true")):
            result = self.run_raw(TARNSIM, *arguments, env={"TARNSIM_CONTROL": ""})
            self.assertEqual(result.code, 2, arguments)
            self.assertIn("try 'tarnsim --help'", result.err)
        result = self.run_raw(TARNSIM, "--bord", self.board, "true", env={})
        self.assertIn("there is no option --bord; did you mean --board?", result.err)

    def test_a_bad_board_is_told_with_its_place_and_runs_nothing(self):
        board = self.write("bad.toml", '[simulate.i2c.a]\nbus = "/dev/i2c-1"\nadress = 1\n')
        result = self.sim("touch", self.path("ran"), board=board)
        self.assertEqual(result.code, 125)
        self.assertIn(board + ":1:1: [simulate.i2c.a] needs the key 'address'", result.err)
        self.assertFalse(os.path.exists(self.path("ran")))
        self.assertEqual(self.run_raw(TARNSIM, "--board", board, "--check").code, 125)
        self.assertEqual(self.run_raw(TARNSIM, "--board", self.board, "--check").code, 0)

    def start(self, script, *options):
        process = subprocess.Popen(self.arguments("sh", "-c", script, options=options),
                                   stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        return process

    def test_sigterm_is_passed_on(self):
        process = self.start("trap 'exit 42' TERM; echo ready; while :; do sleep 0.05; done")
        self.assertEqual(process.stdout.readline(), b"ready\n")
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(TIMEOUT), 42)

    def test_a_transfer_that_hangs_does_not_keep_tarnsim_from_ending(self):
        process = self.start("i2cget -y 4 0x52 0 & echo ready; exit 3")
        self.assertEqual(process.wait(TIMEOUT), 3)

    def test_with_tarnsim_killed_the_command_goes_too(self):
        process = self.start("echo $$; exec sleep 1000")
        command = int(process.stdout.readline())
        process.kill()
        process.wait(TIMEOUT)
        end = time.monotonic() + TIMEOUT
        while os.path.exists(f"/proc/{command}") and time.monotonic() < end:
            time.sleep(0.01)
        self.assertFalse(os.path.exists(f"/proc/{command}"))


class Control(TarnsimTest):
    def control(self, script):
        return self.shell(f"c() {{ {TARNSIM} control \"$@\"; }}\n{script}", "--control",
                          self.path("control"))

    def test_registers_faults_and_loss(self):
        result = self.control(
            "c get monitor 0x20; c set monitor 0x20 0x77; i2cget -y 3 0x51 0x20 w;"
            "c fault monitor nak direction=read first=2 count=1; c faults monitor;"
            "for i in 1 2 3; do i2cget -y 3 0x51 0x20 w 2>/dev/null || echo failed; done;"
            "c fault monitor wrong mask=0xff; i2cget -y 3 0x51 0x20 w; c clear monitor;"
            "c lose monitor; i2cget -y 3 0x51 0x20 w 2>/dev/null || echo failed; c return monitor;"
            "c forget monitor; i2cget -y 3 0x51 0x20 w; c journal monitor; c delay monitor 10")
        self.assertEqual((result.code, result.err), (0, ""))
        self.assertEqual(result.out.splitlines(), [
            "0x1234", "0x0077", "nak direction=read first=2 count=1",
            "0x0077", "failed", "0x0077", "0xff88", "failed", "0x0077",
            "write 0x20:", "read 0x20: 77 00"])

    def test_devices_and_help(self):
        result = self.control("c devices; c help | head -1")
        self.assertEqual(result.out.splitlines(), [
            "eeprom: i2c /dev/i2c-3 0x53 bytes", "fpga: i2c /dev/i2c-3 0x50 block",
            "monitor: i2c /dev/i2c-3 0x51 word", "slow: i2c /dev/i2c-4 0x52 bytes",
            "led: spi /dev/spidev0.1", "bar: pci 0000:ff:00.0 resource0 0x2000", "help"])

    def test_mistakes_are_told_and_change_nothing(self):
        for command, text in (
            ("get nobody 1", "there is no device 'nobody'"),
            ("get monitor", "usage: get DEVICE REGISTER"),
            ("get monitor NAME", "monitor has no register 'NAME'"),
            ("get monitor 0x100", "A word device has no register at 0x100"),
            ("set monitor 0 0x10000", "cannot hold 0x10000"),
            ("fault monitor sparks", "'sparks' is no kind of fault"),
            ("fault monitor nak when=now", "a fault has no 'when=now'"),
            ("fault bar nak", "accesses to a PCI resource go past tarnsim"),
            ("delay monitor -1", "'-1' is no number"),
            ("frobnicate", "there is no command 'frobnicate'"),
        ):
            result = self.control("c " + command)
            self.assertEqual(result.code, 1, command)
            self.assertIn(text, result.err)

    def test_spi_registers_are_seen_and_set(self):
        self.assertEqual(self.control(f"{CLIENT} spi && c get led 0x20; c journal led | head -1"
                                      ).out.splitlines(), ["0xbeef", "transfer: 20 be ef"])

    def test_hostile_clients_do_no_harm(self):
        path = self.path("control")
        process = subprocess.Popen(
            self.arguments("sh", "-c", "echo ready; read x; i2cget -y 3 0x51 0x20 w",
                           options=("--control", path)),
            stdout=subprocess.PIPE, stdin=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        self.assertEqual(process.stdout.readline(), b"ready\n")
        clients = []
        for data in (b"x" * 100000, b"\0\n\xff\xfe\n" * 100, b"help\n" * 20000, b"get monitor "):
            client = socket.socket(socket.AF_UNIX)
            client.settimeout(5)
            client.connect(path)
            clients.append(client)
            try:
                client.sendall(data)
            except OSError:
                pass  # dropped, or not read further
        done = self.run_raw(TARNSIM, "control", path, "get", "monitor", "0x20")
        self.assertEqual((done.code, done.out), (0, "0x1234\n"))
        for client in clients:
            client.close()
        out, _ = process.communicate(b"\n", timeout=TIMEOUT)
        self.assertEqual((process.returncode, out), (0, b"0x1234\n"))
        self.assertFalse(os.path.exists(path))

    def test_a_socket_that_a_dead_one_left_is_replaced_but_nothing_else(self):
        path = self.path("control")
        with socket.socket(socket.AF_UNIX) as dead:
            dead.bind(path)
        self.assertEqual(self.control("c get monitor 0x20").out, "0x1234\n")
        self.write("control", "mine")
        result = self.control("true")
        self.assertEqual(result.code, 125)
        self.assertIn("exists and is no socket", result.err)


def ordinary_user():
    """How to run something as nobody, or the reason why it cannot be tried."""
    if os.geteuid() != 0:
        return None, "not root: all tests run as an ordinary user anyway"
    if not shutil.which("setpriv"):
        return None, "there is no setpriv"
    prefix = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    if subprocess.run([*prefix, "unshare", "--user", "true"], stderr=subprocess.DEVNULL).returncode:
        return None, "the kernel forbids user namespaces to ordinary users"
    if subprocess.run([*prefix, TARNSIM, "--version"], stdout=subprocess.DEVNULL,
                      stderr=subprocess.DEVNULL).returncode:
        return None, "an ordinary user cannot run the program where it was built"
    return prefix, ""


PREFIX, REASON = ordinary_user()


@unittest.skipIf(PREFIX is None, REASON)
class ClientsOfAnOrdinaryUser(Clients):
    prefix = PREFIX


@unittest.skipIf(PREFIX is None, REASON)
class ViewOfAnOrdinaryUser(View):
    prefix = PREFIX


if __name__ == "__main__":
    unittest.main(verbosity=2)
