"""Figures: a median with its spread, its baseline and its target, in a form that is kept as JSON."""

import statistics

# How the values of each unit are shown: (from which value on, divisor, name).
SCALES = {
    "ns": ((1e9, 1e9, "s"), (1e6, 1e6, "ms"), (1e3, 1e3, "us"), (0, 1, "ns")),
    "bytes": ((1 << 20, 1 << 20, "MiB"), (10 << 10, 1 << 10, "KiB"), (0, 1, "B")),
    "instructions": ((1e6, 1e6, "M"), (0, 1, "")),
    "power": ((0, 1, ""),),
}


def shown(value, unit):
    if value is None:
        return ""
    for least, divisor, name in SCALES[unit]:
        if value >= least:
            break
    digits = 2 if unit == "power" or divisor > 1 else 1 if unit == "ns" else 0
    return f"{value / divisor:.{digits}f} {name}".rstrip()


def target_of(text, baseline):
    """A target in the value's unit: a number, "+N" N above the baseline, "xN" N times it."""
    if not isinstance(text, str):
        return text
    number = float(text[1:])
    return baseline + number if text[0] == "+" else baseline * number


def figure(section, what, values, unit, *, baseline=None, baseline_values=None, target=None, note=""):
    """Of the values of all repetitions. "met" is whether the median meets the target: "yes", "no",
    or "lowest" if only the fastest repetition does, so that what else the machine did decided."""
    median = statistics.median(values)
    lower, upper = quartiles(values)
    base = statistics.median(baseline_values) if baseline_values else None
    limit = target_of(target, base)
    met = None
    if limit is not None:
        met = "yes" if median <= limit else "lowest" if min(values) <= limit else "no"
    return {
        "section": section, "what": what, "unit": unit, "median": median, "lowest": min(values),
        "lower": lower, "upper": upper, "baseline": baseline, "baselineMedian": base,
        "ratio": median / base if base else None, "target": limit, "met": met, "note": note,
    }


def quartiles(values):
    """The values between which the middle half lies."""
    if len(values) < 2:
        return values[0], values[0]
    first, _, third = statistics.quantiles(values, n=4, method="inclusive")
    return first, third
