"""Runs the benchmark programs and makes the rows of the table of times."""

import json
import os
import subprocess
import tempfile

from report import ROOT
from report.figures import figure
from report.rows import BOARDS, ROWS

UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

# In the names of benchmarks that measure real time, and not that of the processor.
REAL_TIME = ("/manual_time", "/real_time")


def times_of(results):
    """Times in ns of each benchmark by name, from the JSON that a program wrote."""
    times = {}
    for entry in results["benchmarks"]:
        if entry["run_type"] != "iteration" or entry.get("error_occurred"):
            continue
        name = entry["run_name"]
        kind = "real_time" if any(mark in name for mark in REAL_TIME) else "cpu_time"
        times.setdefault(name, []).append(entry[kind] * UNITS[entry["time_unit"]])
    return times


def run(build, program, repetitions):
    """The times of a program's benchmarks. The order is interleaved at random, so that a disturbance
    of the machine does not fall on one benchmark only; addresses are not, so that runs compare."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        command = [os.path.join(build, "bin", program)]
        if program in BOARDS:
            tarnsim = os.path.join(build, "bin", "tarnsim")
            command = [tarnsim, "--board", os.path.join(ROOT, BOARDS[program]), "--", *command]
        subprocess.run(
            [*unshuffled(), *command, f"--benchmark_repetitions={repetitions}",
             "--benchmark_min_time=0.05", "--benchmark_enable_random_interleaving=true",
             f"--benchmark_out={out.name}", "--benchmark_out_format=json"],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with open(out.name, encoding="utf-8") as text:
            return times_of(json.load(text))


def unshuffled():
    """What has a program's addresses be the same each time, where that may be asked for."""
    allowed = subprocess.run(["setarch", "-R", "true"], stderr=subprocess.DEVNULL, check=False)
    return ["setarch", "-R"] if allowed.returncode == 0 else []


def rows(times, wanted=ROWS):
    """The table of what was run."""
    table = []
    for what, program, name, baseline, baseline_name, target in wanted:
        if program in times:
            table.append(figure("times", what, times[program][name], "ns", baseline=baseline_name,
                                baseline_values=times[program][baseline], target=target))
    return table
