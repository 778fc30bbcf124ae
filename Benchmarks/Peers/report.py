"""Writes what zephalio-peers measured into a page and a chart.

    report.py RESULTS PAGE CHART [--complete]

With --complete it fails if a peer failed or is missing in a task, after writing both.
"""

import pathlib
import sys

import chart
import page
import results as measured


def gaps(results):
    """Tasks and peers without figures, and why; what a peer cannot do is not a gap."""
    found = []
    for table in page.TABLES:
        for task, _ in table.columns:
            for peer in results.peers:
                excuse = results.get(task, peer).excuse
                if excuse and not excuse.startswith("unsuited"):
                    found.append(f"{task}: {peer}: {excuse}")
    return found


def main(arguments):
    is_complete = "--complete" in arguments
    results_path, page_path, chart_path = (a for a in arguments if a != "--complete")
    with open(results_path, encoding="utf-8") as file:
        results = measured.Results(file)
    target = pathlib.Path(page_path)
    target.write_text(page.renew(target.read_text("utf-8"), page.render(results)), "utf-8")
    pathlib.Path(chart_path).write_text(chart.render(results), "utf-8")
    missing = gaps(results) if is_complete else []
    print("\n".join(missing), file=sys.stderr, end="\n" if missing else "")
    return 1 if missing or not results.peers else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
