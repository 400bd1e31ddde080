"""Instructions of one operation of each path, counted by callgrind. They repeat to within a few, on
any machine of the kind and however busy it is, where times do not."""

import os
import re
import subprocess
import tempfile

from report.figures import figure
from report.growth import exponent, log_linear
from report.times import unshuffled

# path of bench_paths, what, sizes, operations in the shorter and the longer of two runs
PATHS = [
    ("readByName", "read by name, mock", (100, 10000, 100000), (1000, 11000)),
    ("readByHandle", "read by handle, mock", (100, 10000, 100000), (1000, 11000)),
    ("writeByName", "write by name, mock", (100, 10000, 100000), (1000, 11000)),
    ("writeByHandle", "write by handle, mock", (100, 10000, 100000), (1000, 11000)),
    ("pciByName", "read by name, PCI", (100, 10000, 100000), (1000, 11000)),
    ("pciByHandle", "read by handle, PCI", (100, 10000, 100000), (1000, 11000)),
    ("tableGet", "table: get", (1000, 5000, 100000), (1000, 11000)),
    ("tablePut", "table: put", (1000, 5000, 100000), (1000, 11000)),
    ("ownerRead", "shadow read by name", (1000, 10000, 100000), (1000, 11000)),
    ("initialSync", "initial sync, a register", (1000, 10000, 100000), (1, 3)),
]


def collected(output):
    """The count in what callgrind prints."""
    found = re.search(r"Collected : ([0-9]+)", output)
    if not found:
        raise ValueError(f"callgrind has not counted:\n{output}")
    return int(found.group(1))


def count(build, path, size, operations):
    with tempfile.TemporaryDirectory() as directory:
        done = subprocess.run(
            [*unshuffled(), "valgrind", "--tool=callgrind",
             f"--callgrind-out-file={directory}/out", os.path.join(build, "bin", "bench_paths"),
             path, str(size), str(operations)],
            check=True, capture_output=True, text=True)
    return collected(done.stderr)


def instructions(build, wanted=PATHS, counted=count):
    """Each path at its sizes, less what calling it takes, and how the count grows."""
    call = (counted(build, "nothing", 1, 20000) - counted(build, "nothing", 1, 10000)) / 10000
    table = []
    for path, what, sizes, (few, many) in wanted:
        points = []
        for size in sizes:
            each = (counted(build, path, size, many) - counted(build, path, size, few)) / (many - few)
            each = each / size if path == "initialSync" else each - call
            points.append((size, each))
            table.append(figure("instructions", f"{what}, {size:,}", [each], "instructions"))
        power = 1 + exponent(points)
        table.append(figure("instructions", f"{what}: power", [power],
                            "power", target=log_linear(sizes)))
    return table
