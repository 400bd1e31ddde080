"""What has changed between two runs that were kept as JSON."""

from report.figures import shown


def compare(before, after):
    """Rows of (section, what, unit, before, after, ratio, said). A change is one that the spreads do
    not explain: the middle halves of the two runs have no value in common. Figures that repeat
    exactly have no spread, so any difference of theirs of more than one in a hundred is one."""
    known = {(f["section"], f["what"]): f for f in before["figures"]}
    rows = []
    for new in after["figures"]:
        old = known.pop((new["section"], new["what"]), None)
        if old is None:
            rows.append((new["section"], new["what"], new["unit"], None, new["median"], None, "new"))
            continue
        ratio = new["median"] / old["median"] if old["median"] else None
        apart = new["lower"] > old["upper"] or new["upper"] < old["lower"]
        said = ""
        if apart and ratio is not None and abs(ratio - 1) > 0.01:
            said = "more" if ratio > 1 else "less"
        if old["met"] != new["met"] and new["met"] is not None:
            said = f"{said} met: {old['met']} -> {new['met']}".strip()
        rows.append((new["section"], new["what"], new["unit"], old["median"], new["median"], ratio,
                     said))
    rows += [(old["section"], old["what"], old["unit"], old["median"], None, None, "gone")
             for old in known.values()]
    return rows


def lines(rows):
    yield f"{'':14}{'what':44} {'before':>10} {'after':>10} {'ratio':>7}"
    for section, what, unit, old, new, ratio, said in rows:
        times = f"{ratio:6.2f}x" if ratio is not None else ""
        yield (f"{section:14}{what:44} {shown(old, unit):>10} {shown(new, unit):>10} {times:>7}  "
               f"{said}").rstrip()
