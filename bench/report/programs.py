"""What whole programs take: memory while they serve nothing and much, time to start, and the parts
that are shipped: their size, and what including them costs."""

import json
import os
import resource
import subprocess
import tempfile
import time

from report import ROOT
from report.figures import figure

HEADER = "number,name,type,writeable,width\n"


def register_list(directory, count):
    path = os.path.join(directory, f"list-{count}.csv")
    with open(path, "w", encoding="utf-8") as out:
        out.write(HEADER)
        for i in range(count):
            out.write(f"{i},BLOCK{i // 64}_REG{i % 64},status,true,32\n")
    return path


def resident(pid):
    """Bytes of a process that are in memory, and how many of them are its own."""
    sizes = {}
    with open(f"/proc/{pid}/smaps_rollup", encoding="utf-8") as lines:
        for line in lines:
            name, _, rest = line.partition(":")
            if rest.split()[1:] == ["kB"]:
                sizes[name] = int(rest.split()[0]) * 1024
    return sizes["Rss"], sizes["Private_Clean"] + sizes["Private_Dirty"]


def settled(pid, seconds=60):
    """resident(), once it has not changed for half a second."""
    deadline = time.monotonic() + seconds
    last, since = resident(pid), time.monotonic()
    while time.monotonic() < deadline and time.monotonic() - since < 0.5:
        time.sleep(0.05)
        now = resident(pid)
        if now != last:
            last, since = now, time.monotonic()
    return last


class Service:
    """A daemon while it runs."""

    def __init__(self, command, ready, environment=None):
        self._command, self._ready = command, ready
        self._environment = {**os.environ, **(environment or {})}

    def __enter__(self):
        self._process = subprocess.Popen(self._command, env=self._environment,
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 60
        while not self._ready():
            if self._process.poll() is not None or time.monotonic() > deadline:
                self._process.kill()
                raise RuntimeError(f"{self._command[0]} does not come up")
            time.sleep(0.02)
        return self._process.pid

    def __exit__(self, *_):
        self._process.terminate()
        self._process.wait()


def _of_service(what, service):
    with service as pid:
        rss, own = settled(pid)
    return [figure("memory", what, [rss], "bytes", note=f"{own / (1 << 20):.1f} MiB of it its own")]


def _shadowd(bin_directory, directory, count, cores):
    tables = os.path.join(directory, f"tables-{count}-{cores}")
    os.mkdir(tables)
    path = register_list(directory, count)
    board = os.path.join(directory, f"board-{count}-{cores}.toml")
    names = [f"core{i}" for i in range(cores)]
    with open(board, "w", encoding="utf-8") as out:
        for name in names:
            out.write(f'[devices.{name}]\nlist = "{path}"\ntransport = "mock:"\n')
        out.write(f"[shadow]\ncores = {json.dumps(names)}\n")
    state = [os.path.join(bin_directory, "tarnreg"), "-b", board, "-d", names[-1], "shadow", "state"]
    environment = {"TARN_TABLE_DIR": tables}

    def ready():
        done = subprocess.run(state, env={**os.environ, **environment}, capture_output=True,
                              text=True, check=False)
        return " ready " in done.stdout

    return Service([os.path.join(bin_directory, "tarn-shadowd"), "--board", board], ready, environment)


def _nimbod(bin_directory, directory, buses):
    config = os.path.join(directory, f"nimbod-{buses}.toml")
    sockets = os.path.join(directory, f"sockets-{buses}")
    os.mkdir(sockets)
    with open(config, "w", encoding="utf-8") as out:
        for i in range(buses):
            out.write(f'[nimbod.buses.bus{i}]\nnumber = {i}\ndevice = "/dev/i2c-{i}"\n')
            out.write(f'[simulate.i2c.device{i}]\nbus = "/dev/i2c-{i}"\naddress = 0x50\n'
                      f'kind = "block"\naddress_unit = 4\n')
    return Service([os.path.join(bin_directory, "nimbod"), "--config", config, "--simulate",
                    "--socket-dir", sockets],
                   lambda: os.path.exists(os.path.join(sockets, "smbus")))


def memory(build):
    bin_directory = os.path.join(build, "bin")
    table = []
    for count in (1000, 10000, 100000):
        done = subprocess.run([os.path.join(bin_directory, "bench_paths"), "listMemory", str(count)],
                              check=True, capture_output=True, text=True)
        table.append(figure("memory", f"a register of a loaded list of {count:,}",
                            [int(done.stdout)], "bytes"))
    done = subprocess.run([os.path.join(bin_directory, "bench_sorn"),
                           "--benchmark_filter=memoryInFlight", "--benchmark_format=json"],
                          check=True, capture_output=True, text=True)
    each = json.loads(done.stdout)["benchmarks"][0]["bytesEach"]
    table.append(figure("memory", "an asynchronous read in flight", [each], "bytes"))
    with tempfile.TemporaryDirectory() as directory:
        for what, count in (("the sample board", None), ("100k registers", 100000)):
            path = register_list(directory, count) if count else sample_list()
            values = [_run_once(read_command(bin_directory, path, count))[2] for _ in range(5)]
            table.append(figure("memory", f"tarnreg read, {what}, at the most", values, "bytes"))
        for what, buses in (("1 bus", 1), ("8 buses", 8)):
            table += _of_service(f"nimbod, {what}", _nimbod(bin_directory, directory, buses))
        for what, count, cores in (("1 register", 1, 1), ("10k registers", 10000, 1),
                                   ("100k registers", 100000, 1), ("20 cores of 1k", 1000, 20)):
            table += _of_service(f"tarn-shadowd, {what}",
                                 _shadowd(bin_directory, directory, count, cores))
    return table


def sample_list():
    return os.path.join(ROOT, "examples", "switch-board.csv")


def read_command(bin_directory, path, count):
    name = f"BLOCK{(count // 2) // 64}_REG{(count // 2) % 64}" if count else "FPGA_ID"
    return [os.path.join(bin_directory, "tarnreg"), "--file", path, "read", name]


def _run_once(command):
    """Seconds, seconds of the processor, and bytes at the most."""
    begin = time.monotonic()
    with open(os.devnull, "w", encoding="utf-8") as nowhere:
        pid = os.posix_spawn(command[0], command, os.environ,
                             file_actions=[(os.POSIX_SPAWN_DUP2, nowhere.fileno(), 1)])
        _, status, usage = os.wait4(pid, 0)
    took = time.monotonic() - begin
    if status != 0:
        raise RuntimeError(f"{' '.join(command)}: status {status}")
    return took, usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024


def start_up(build, repetitions=21):
    """`tarnreg read` of one register, the whole process, beside one that does nothing."""
    bin_directory = os.path.join(build, "bin")
    nothing = ["/bin/true"]
    table = []
    with tempfile.TemporaryDirectory() as directory:
        for what, count in (("the sample board", None), ("10k registers", 10000),
                            ("100k registers", 100000)):
            path = register_list(directory, count) if count else sample_list()
            command = read_command(bin_directory, path, count)
            ours, base = [], []
            for _ in range(repetitions):
                ours.append(_run_once(command)[0] * 1e9)
                base.append(_run_once(nothing)[0] * 1e9)
            table.append(figure("start-up", f"tarnreg read, {what}", ours, "ns",
                                baseline="/bin/true", baseline_values=base))
    return table


def compile_cost(repetitions=5, compiler=None):
    """Processor time of compiling a client, beside a file that includes <string> alone."""
    compiler = compiler or os.environ.get("CXX", "c++")
    sources = {
        "string": "#include <string>\nint main() {}\n",
        "TransportMethod.h": '#include "TarnRegFile/TransportMethod.h"\nint main() {}\n',
        "ShadowClient.h": '#include "TarnRegFile/ShadowClient.h"\nint main() {}\n',
    }
    times = {name: [] for name in sources}
    with tempfile.TemporaryDirectory() as directory:
        for _ in range(repetitions):
            for name, text in sources.items():
                path = os.path.join(directory, name + ".cpp")
                with open(path, "w", encoding="utf-8") as out:
                    out.write(text)
                before = resource.getrusage(resource.RUSAGE_CHILDREN)
                subprocess.run([compiler, "-std=c++20", "-O2", f"-I{ROOT}", "-c", path, "-o",
                                os.path.join(directory, "out.o")], check=True)
                after = resource.getrusage(resource.RUSAGE_CHILDREN)
                times[name].append((after.ru_utime - before.ru_utime +
                                    after.ru_stime - before.ru_stime) * 1e9)
    return [figure("build", f"compiling a file with {name}", times[name], "ns",
                   baseline="one with <string>", baseline_values=times["string"])
            for name in sources if name != "string"]


def sizes(build):
    table = []
    with tempfile.TemporaryDirectory() as directory:
        for path in ("lib/libTarnPlatform.so", "lib/libTarnRegFile.so", "bin/tarnreg", "bin/nimbod",
                     "bin/tarn-shadowd"):
            stripped = os.path.join(directory, "stripped")
            subprocess.run(["strip", "-o", stripped, os.path.join(build, path)], check=True)
            table.append(figure("build", f"{os.path.basename(path)}, stripped",
                                [os.path.getsize(stripped)], "bytes"))
    return table
