"""The table as text."""

from report.figures import shown

TITLES = {
    "times": "Times",
    "growth": "Growth: the power of the size with which the time of all of them grows; n log n is the target",
    "instructions": "Instructions",
    "memory": "Memory",
    "start-up": "Start-up, the whole process",
    "build": "Compiling and size",
}
SAID = {"yes": "met", "no": "NOT MET", "lowest": "met by the lowest", None: ""}


def lines(figures):
    section = None
    for row in figures:
        if row["section"] != section:
            if section is not None:
                yield ""
            section = row["section"]
            yield TITLES[section]
            yield (f"{'what':44} {'median':>10} {'middle half':>24} {'lowest':>10}  "
                   f"{'baseline':>28} {'ratio':>7}  {'target':>10}").rstrip()
        unit = row["unit"]
        spread = ""
        if row["lower"] != row["upper"]:
            spread = f"{shown(row['lower'], unit)} - {shown(row['upper'], unit)}"
        base = ""
        if row["baseline"]:
            base = f"{row['baseline']} {shown(row['baselineMedian'], unit)}"
        ratio = f"{row['ratio']:.2f}x" if row["ratio"] is not None else ""
        lowest = shown(row["lowest"], unit) if spread else ""
        yield (f"{row['what']:44} {shown(row['median'], unit):>10} {spread:>24} {lowest:>10}  "
               f"{base:>28} {ratio:>7}  {shown(row['target'], unit):>10} {SAID[row['met']]}"
               f"  {row['note']}").rstrip()
