"""What scripts/bench-table makes of measurements: medians, spreads, targets, growth, comparisons.

usage: test_bench_table.py SOURCE-DIRECTORY
"""

import json
import os
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.abspath(sys.argv[1])
sys.path.insert(0, os.path.join(ROOT, "bench"))

# pylint: disable=wrong-import-position
from report import compare, figures, growth, instructions, programs, show, times
from report.rows import GROWTHS, ROWS


def entry(name, kind="iteration", **values):
    return {"run_name": name, "run_type": kind, "time_unit": "ns", "cpu_time": 1.0, "real_time": 2.0,
            **values}


class Times(unittest.TestCase):
    def test_times_of_the_processor_are_taken_but_where_a_benchmark_measures_real_time(self):
        taken = times.times_of({"benchmarks": [
            entry("a/1"), entry("a/1", cpu_time=3.0), entry("b/manual_time"),
            entry("c/real_time/threads:8"), entry("d/real_time")]})
        self.assertEqual(taken, {"a/1": [1.0, 3.0], "b/manual_time": [2.0],
                                 "c/real_time/threads:8": [2.0], "d/real_time": [2.0]})

    def test_units_become_nanoseconds(self):
        taken = times.times_of({"benchmarks": [entry("a", time_unit=unit)
                                               for unit in ("ns", "us", "ms", "s")]})
        self.assertEqual(taken, {"a": [1.0, 1e3, 1e6, 1e9]})

    def test_aggregates_and_failures_are_left_out(self):
        taken = times.times_of({"benchmarks": [
            entry("a"), entry("a", kind="aggregate", cpu_time=9.0),
            entry("a", error_occurred=True, cpu_time=9.0)]})
        self.assertEqual(taken, {"a": [1.0]})

    def test_a_row_is_made_for_each_program_that_was_run(self):
        wanted = [("one", "p", "a", "b", "the other", 5.0), ("two", "q", "a", "b", "the other", None)]
        table = times.rows({"p": {"a": [4.0, 6.0, 8.0], "b": [2.0, 3.0, 4.0]}}, wanted)
        self.assertEqual([row["what"] for row in table], ["one"])
        self.assertEqual(table[0]["median"], 6.0)
        self.assertEqual(table[0]["ratio"], 2.0)

    def test_every_row_has_a_text_of_its_own(self):
        self.assertEqual(len({row[0] for row in ROWS}), len(ROWS))
        self.assertEqual(len({row[0] for row in GROWTHS}), len(GROWTHS))


class Figures(unittest.TestCase):
    def test_a_target_may_stand_beside_the_baseline(self):
        self.assertEqual(figures.target_of(60.0, 10.0), 60.0)
        self.assertEqual(figures.target_of("+45", 10.0), 55.0)
        self.assertEqual(figures.target_of("x1.5", 10.0), 15.0)
        self.assertIsNone(figures.target_of(None, None))

    def test_the_median_meets_a_target_or_only_the_lowest_does_or_neither(self):
        def met(target):
            return figures.figure("times", "a", [10.0, 20.0, 30.0], "ns", target=target)["met"]
        self.assertEqual([met(20.0), met(19.9), met(10.0), met(9.9), met(None)],
                         ["yes", "lowest", "lowest", "no", None])

    def test_the_spread_is_the_middle_half(self):
        row = figures.figure("times", "a", [5.0, 1.0, 2.0, 100.0, 3.0], "ns")
        self.assertEqual((row["lowest"], row["lower"], row["median"], row["upper"]), (1.0, 2.0, 3.0, 5.0))
        self.assertEqual(figures.quartiles([7.0]), (7.0, 7.0))

    def test_values_are_shown_in_the_unit_that_suits_them(self):
        self.assertEqual([figures.shown(v, "ns") for v in (1.25, 999.0, 1500.0, 2.5e6, 3e9)],
                         ["1.2 ns", "999.0 ns", "1.50 us", "2.50 ms", "3.00 s"])
        self.assertEqual([figures.shown(v, "bytes") for v in (119, 20480, 3 << 20)],
                         ["119 B", "20.00 KiB", "3.00 MiB"])
        self.assertEqual(figures.shown(312, "instructions"), "312")
        self.assertEqual(figures.shown(1.044, "power"), "1.04")
        self.assertEqual(figures.shown(None, "ns"), "")


class Growth(unittest.TestCase):
    SIZES = (1000, 10000, 100000)

    def test_the_exponent_of_a_power_is_found(self):
        for power in (0.0, 0.5, 1.0, 2.0):
            points = [(size, 3.0 * size ** power) for size in self.SIZES]
            self.assertAlmostEqual(growth.exponent(points), power)

    def test_n_log_n_is_a_little_more_than_linear(self):
        self.assertGreater(growth.log_linear(self.SIZES), 1.05)
        self.assertLess(growth.log_linear(self.SIZES), 1.2)
        self.assertGreater(growth.log_linear((1, 8, 64)), 1.0)

    def of(self, measured, time_of):
        wanted = [("it", "p", "b/{}", self.SIZES, measured)]
        return growth.growths({"p": {f"b/{size}": [time_of(size)] * 3 for size in self.SIZES}}, wanted)[0]

    def test_what_is_constant_for_one_is_linear_for_all(self):
        row = self.of("one", lambda size: 50.0)
        self.assertAlmostEqual(row["median"], 1.0)
        self.assertEqual(row["met"], "yes")

    def test_what_is_measured_for_all_is_taken_as_it_is(self):
        self.assertAlmostEqual(self.of("all", lambda size: 50.0 * size)["median"], 1.0)
        self.assertEqual(self.of("all", lambda size: 1.0 * size * size)["met"], "no")

    def test_programs_that_were_not_run_have_no_growth(self):
        self.assertEqual(growth.growths({}), [])


class Instructions(unittest.TestCase):
    def test_the_count_is_read_from_what_callgrind_prints(self):
        self.assertEqual(instructions.collected("==7== Events    : Ir\n==7== Collected : 3416\n"), 3416)
        with self.assertRaises(ValueError):
            instructions.collected("valgrind: no such program")

    def test_what_comes_before_and_what_calls_does_not_count(self):
        def counted(_build, path, size, operations):
            return 1000000 + size * 10 + operations * (7 if path == "nothing" else 7 + 120)
        table = instructions.instructions("", [("x", "a read", (100, 1000, 10000), (10, 110))], counted)
        self.assertEqual([row["median"] for row in table[:3]], [120, 120, 120])
        self.assertAlmostEqual(table[3]["median"], 1.0)
        self.assertEqual(table[3]["met"], "yes")


class Programs(unittest.TestCase):
    def test_a_list_has_the_register_that_is_read(self):
        with tempfile.TemporaryDirectory() as directory:
            path = programs.register_list(directory, 1000)
            name = programs.read_command("bin", path, 1000)[-1]
            with open(path, encoding="utf-8") as text:
                lines = text.read().splitlines()
        self.assertEqual(len(lines), 1001)
        self.assertIn(f"500,{name},status,true,32", lines)

    def test_the_memory_of_a_process_is_found(self):
        rss, own = programs.resident(os.getpid())
        self.assertGreater(rss, own)
        self.assertGreater(own, 1 << 20)


class Compare(unittest.TestCase):
    @staticmethod
    def run_of(**values):
        return {"figures": [figures.figure("times", what, list(v), "ns", target=20.0)
                            for what, v in values.items()]}

    def said(self, before, after):
        return {row[1]: row[6] for row in compare.compare(before, after)}

    def test_what_the_spreads_explain_is_no_change(self):
        self.assertEqual(self.said(self.run_of(a=[10, 12, 14]), self.run_of(a=[11, 13, 15])), {"a": ""})

    def test_what_they_do_not_explain_is_told(self):
        self.assertEqual(self.said(self.run_of(a=[10, 11, 12], b=[10, 11, 12]),
                                   self.run_of(a=[14, 15, 16], b=[7, 8, 9])), {"a": "more", "b": "less"})

    def test_a_target_that_is_no_longer_met_is_told(self):
        self.assertEqual(self.said(self.run_of(a=[10, 11, 12]), self.run_of(a=[24, 25, 26])),
                         {"a": "more met: yes -> no"})

    def test_figures_that_one_run_only_has_are_told(self):
        self.assertEqual(self.said(self.run_of(a=[1, 2, 3]), self.run_of(b=[1, 2, 3])),
                         {"a": "gone", "b": "new"})

    def test_the_command_compares_two_files(self):
        with tempfile.TemporaryDirectory() as directory:
            paths = []
            for name, run in (("before", self.run_of(a=[10, 11, 12])), ("after", self.run_of(a=[5, 5, 5]))):
                paths.append(os.path.join(directory, name))
                with open(paths[-1], "w", encoding="utf-8") as out:
                    json.dump(run, out)
            done = subprocess.run([os.path.join(ROOT, "scripts", "bench-table"), "--compare", *paths],
                                  check=True, capture_output=True, text=True)
        self.assertRegex(done.stdout, r"times +a +11.0 ns +5.0 ns +0.45x  less")


class Show(unittest.TestCase):
    def test_each_section_has_a_title_and_each_figure_a_line(self):
        shown = list(show.lines([
            figures.figure("times", "a read", [10.0, 20.0, 30.0], "ns", baseline="bare",
                           baseline_values=[5.0], target=15.0),
            figures.figure("memory", "a register", [120], "bytes")]))
        self.assertEqual(shown[0], "Times")
        self.assertRegex(shown[2], r"^a read +20.0 ns +15.0 ns - 25.0 ns +10.0 ns +bare 5.0 ns +4.00x "
                                   r"+15.0 ns met by the lowest$")
        self.assertEqual(shown[3:5], ["", "Memory"])
        self.assertRegex(shown[6], r"^a register +120 B$")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
