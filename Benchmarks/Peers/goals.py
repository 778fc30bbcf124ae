"""Prints how many times as fast as other Python packages the package zephal is, as rows of ./bench.

    goals.py RESULTS [--complete]

With --complete it fails if something was not measured, after printing the rest.
"""

import sys

import results as measured

OURS = "zephal, Python"
COMMANDS = {f"command-{name}-pinned": f"a command, {name}" for name in ("unix", "TCP", "pty")}
ANSWERS = {f"answer-{name}-pinned": f"an answer of 80 bytes, {name}" for name in ("TCP", "pty")}
FLOOD = {"response-once": "expect after 16 MiB"}
CLOCK, PROCESSOR = "time on the clock", "processor time"

# Peer, tasks, kind of time, goal.
ROWS = [
    ("pexpect as it comes", COMMANDS, CLOCK, "10"),
    ("pexpect as it comes", COMMANDS, PROCESSOR, "10"),
    ("pexpect", COMMANDS, PROCESSOR, "reported"),
    ("pyserial", COMMANDS, CLOCK, "3"),
    ("pyserial", COMMANDS, PROCESSOR, "3"),
    ("pyserial", ANSWERS, CLOCK, "3"),
    ("pyserial", ANSWERS, PROCESSOR, "3"),
    ("pexpect as it comes", FLOOD, CLOCK, "20"),
    ("pexpect as it comes", FLOOD, PROCESSOR, "20"),
    ("pexpect", FLOOD, PROCESSOR, "reported"),
]


def duration(seconds):
    """In a unit that leaves it readable."""
    if seconds < 1e-3:
        return f"{seconds * 1e6:.1f} us"
    return f"{seconds * 1e3:.1f} ms" if seconds < 1 else f"{seconds:.2f} s"


def outcome(theirs, ours, kind):
    """How many times as fast, and both times; or why not."""
    if theirs.excuse or ours.excuse:
        return theirs.excuse or ours.excuse
    spreads = [one.wall if kind == CLOCK else one.processor for one in (theirs, ours)]
    slow, fast = (spread.median for spread in spreads)
    return f"{slow / fast:.1f} ({duration(slow)} / {duration(fast)})"


def rows(results):
    """What, goal and outcome, except where a peer does not have the transport."""
    for peer, tasks, kind, goal in ROWS:
        for task, what in tasks.items():
            theirs, ours = results.get(task, peer), results.get(task, OURS)
            if not theirs.excuse.startswith("unsuited"):
                yield f"{what}, {kind}, against {peer}", goal, outcome(theirs, ours, kind)


def main(arguments):
    is_complete = "--complete" in arguments
    (path,) = (argument for argument in arguments if argument != "--complete")
    with open(path, encoding="utf-8") as file:
        results = measured.Results(file)
    print("\nFrom Python, how many times as fast\n\n| What | Goal | Result |\n|---|---|---|")
    is_whole = True
    for what, goal, result in rows(results):
        print(f"| {what} | {goal} | {result} |")
        is_whole = is_whole and result.endswith(")")
    return 1 if is_complete and not is_whole else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
