"""How fast each path grows with its size: the exponent of the power that fits best."""

import math
import statistics

from report.figures import figure
from report.rows import GROWTHS


def exponent(points):
    """The slope of the line through (size, value) on logarithmic scales."""
    logs = [(math.log(size), math.log(value)) for size, value in points]
    x_mean, y_mean = (statistics.mean(axis) for axis in zip(*logs))
    return (sum((x - x_mean) * (y - y_mean) for x, y in logs) /
            sum((x - x_mean) ** 2 for x, _ in logs))


def log_linear(sizes):
    """What the exponent of n log n is between these sizes; one of 1 counts as 2, or it has none."""
    return exponent([(size, size * math.log(max(size, 2))) for size in sizes])


def growths(times, wanted=GROWTHS):
    """Of all of so many operations, also where the time of one was measured: linear is 1."""
    table = []
    for what, program, name, sizes, measured in wanted:
        if program not in times:
            continue
        each = [times[program][name.format(size)] for size in sizes]
        more = 1 if measured == "one" else 0
        # Of the medians; the spread is what repetitions by themselves would have said.
        fitted = more + exponent([(size, statistics.median(v)) for size, v in zip(sizes, each)])
        alone = [more + exponent(list(zip(sizes, repetition))) for repetition in zip(*each)]
        row = figure("growth", what, alone, "power", target=log_linear(sizes),
                     note=" - ".join(f"{size:,}" for size in (sizes[0], sizes[-1])))
        row["median"] = fitted
        row["met"] = "yes" if fitted <= row["target"] else "lowest" if row["lowest"] <= row["target"] else "no"
        table.append(row)
    return table
