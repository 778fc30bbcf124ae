"""Tests of the page and the chart that report.py writes, and of the rows that goals.py prints."""

import contextlib
import io
import pathlib
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

import chart
import goals
import page
import report
import results

PEERS = ["raw loop", "ZephalIO", "slow & <old>"]
TASKS = [task for table in page.TABLES for task, _ in table.columns]


def line(task, peer, end="measured\t0\t2e-6\t1e-6\t4e-6\t3e-6\t2e-6\t9e-6"):
    return f"{task}\t{peer}\t{end}\n"


def results_of(lines=()):
    """Figures for every task and peer, except where `lines` say something else."""
    everything = [line(task, peer) for task in TASKS for peer in PEERS]
    return results.Results(["# System: a machine\n"] + everything + list(lines))


class PageTest(unittest.TestCase):
    def test_each_table_has_a_row_for_each_peer(self):
        generated = page.render(results_of())
        for peer in PEERS:
            self.assertEqual(generated.count(f"| {peer} |"), len(page.TABLES))
        self.assertIn("| System | a machine |", generated)

    def test_a_cell_has_median_least_and_greatest(self):
        generated = page.render(results_of())
        self.assertIn("| raw loop | 2.00 (1.00–4.00) |", generated)  # processor time in us
        self.assertIn("| raw loop | 3.00 (2.00–9.00) |", generated)  # on the clock

    def test_a_missing_peer_is_named(self):
        generated = page.render(results_of([line("lines-16", "ZephalIO", "missing libold-dev")]))
        self.assertIn("| ZephalIO | not installed |", generated)
        self.assertIn("ZephalIO: missing libold-dev.", generated)

    def test_an_unsuited_peer_has_a_dash_and_the_reason(self):
        generated = page.render(results_of([line("memory", "ZephalIO", "unsuited has none")]))
        self.assertIn("| ZephalIO | – |", generated)
        self.assertIn("ZephalIO has none.", generated)

    def test_a_failed_peer_is_not_left_out(self):
        generated = page.render(results_of([line("memory", "ZephalIO", "failed timeout")]))
        self.assertIn("| ZephalIO | failed |", generated)
        self.assertIn("ZephalIO: failed timeout.", generated)

    def test_a_shorter_response_is_admitted(self):
        shorter = line("response-once", "ZephalIO", "measured\t65536" + "\t1" * 6)
        generated = page.render(results_of([shorter]))
        self.assertIn("ZephalIO: computed from a response of 64 KiB.", generated)

    def test_only_the_generated_part_is_replaced(self):
        before = f"mine {page.BEGIN} old {page.END} mine too"
        renewed = page.renew(before, "new")
        self.assertEqual(renewed, f"mine {page.BEGIN}\n\nnew\n{page.END} mine too")
        with self.assertRaises(ValueError):
            page.renew("no marks", "new")

    def test_figures_have_three_digits(self):
        values = [0.01234, 1.234, 12.34, 123.4, 12345.0]
        self.assertEqual([page.figure(v) for v in values], ["0.01", "1.23", "12.3", "123", "12,300"])


class ChartTest(unittest.TestCase):
    def test_every_panel_has_a_dot_for_each_peer(self):
        root = ElementTree.fromstring(chart.render(results_of()))
        dots = root.findall(".//{http://www.w3.org/2000/svg}circle")
        self.assertEqual(len(dots), len(chart.PANELS) * len(PEERS))

    def test_a_greater_value_is_further_to_the_right(self):
        slow = line("memory", "ZephalIO", "measured\t0\t9e3\t9e3\t9e3\t0\t0\t0")
        root = ElementTree.fromstring(chart.render(results_of([slow])))
        dots = root.findall(".//{http://www.w3.org/2000/svg}circle")[-len(PEERS) :]
        raw, ours, _ = (float(dot.get("cx")) for dot in dots)
        self.assertGreater(ours, raw)

    def test_it_has_no_script_and_two_colour_schemes(self):
        text = chart.render(results_of())
        self.assertNotIn("<script", text)
        self.assertIn("prefers-color-scheme: dark", text)

    def test_a_missing_peer_has_a_row_without_a_dot(self):
        missing = line("memory", "ZephalIO", "missing libold-dev")
        text = chart.render(results_of([missing]))
        self.assertEqual(text.count("<circle"), len(chart.PANELS) * len(PEERS) - 1)
        self.assertIn("not installed", text)


class ReportTest(unittest.TestCase):
    def run_report(self, lines, *options):
        with tempfile.TemporaryDirectory() as folder:
            paths = [pathlib.Path(folder, name) for name in ("results", "page", "chart")]
            paths[0].write_text("".join(lines), "utf-8")
            paths[1].write_text(f"# Peers\n{page.BEGIN}{page.END}\n", "utf-8")
            with contextlib.redirect_stderr(io.StringIO()) as errors:
                status = report.main([str(path) for path in paths] + list(options))
            return status, errors.getvalue(), paths[1].read_text("utf-8")

    def test_complete_results_pass(self):
        lines = [line(task, peer) for task in TASKS for peer in PEERS]
        lines.append(line("memory", "ZephalIO", "unsuited has none"))
        status, errors, text = self.run_report(lines, "--complete")
        self.assertEqual((status, errors), (0, ""))
        self.assertIn("### Memory of a connection", text)

    def test_a_gap_fails_only_where_results_must_be_complete(self):
        lines = [line(task, "ZephalIO") for task in TASKS[1:]]
        self.assertEqual(self.run_report(lines)[0], 0)
        status, errors, _ = self.run_report(lines, "--complete")
        self.assertEqual(status, 1)
        self.assertIn(f"{TASKS[0]}: ZephalIO", errors)

    def test_no_results_fail(self):
        self.assertEqual(self.run_report([])[0], 1)


class GoalsTest(unittest.TestCase):
    TASKS = [task for _, tasks, _, _ in goals.ROWS for task in tasks]

    def run_goals(self, lines, *options):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "results")
            path.write_text("".join(lines), "utf-8")
            with contextlib.redirect_stdout(io.StringIO()) as output:
                status = goals.main([str(path), *options])
            return status, output.getvalue()

    def everything(self):
        times = "measured\t0\t9e-6\t9e-6\t9e-6\t4e-4\t4e-4\t4e-4"
        ours = "measured\t0\t3e-6\t3e-6\t3e-6\t2e-6\t2e-6\t2e-6"
        peers = {row[0]: times for row in goals.ROWS} | {goals.OURS: ours}
        return [line(task, peer, end) for task in self.TASKS for peer, end in peers.items()]

    def test_a_row_says_how_many_times_as_fast(self):
        status, output = self.run_goals(self.everything(), "--complete")
        self.assertEqual(status, 0)
        row = "| a command, TCP, {}, against pyserial | 3 | {} |"
        self.assertIn(row.format("time on the clock", "200.0 (400.0 us / 2.0 us)"), output)
        self.assertIn(row.format("processor time", "3.0 (9.0 us / 3.0 us)"), output)

    def test_a_missing_peer_is_named_and_fails_only_where_nothing_may_miss(self):
        lines = [*self.everything(), line("response-once", "pexpect", "missing python3-pexpect")]
        status, output = self.run_goals(lines)
        self.assertEqual(status, 0)
        self.assertIn("| missing python3-pexpect |", output)
        self.assertEqual(self.run_goals(lines, "--complete")[0], 1)

    def test_a_peer_that_is_unsuited_has_no_row(self):
        lines = [*self.everything(), line("command-TCP-pinned", "pyserial", "unsuited has none")]
        self.assertNotIn("a command, TCP, processor time, against pyserial", self.run_goals(lines)[1])


if __name__ == "__main__":
    unittest.main()
