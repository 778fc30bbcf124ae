"""The generated part of Documentation/Peers.md: the machine, and a table for each kind of task."""

import dataclasses

BEGIN = "<!-- ./bench --peers writes what follows -->"
END = "<!-- ./bench --peers writes what is above -->"


@dataclasses.dataclass
class Table:
    title: str
    unit: str
    scale: float  # seconds or bytes times this are units
    columns: list  # task, heading
    is_wall: bool = False


def _commands(kind, name="command"):
    return [(f"{name}-{transport}-{kind}", transport) for transport in ("unix", "TCP", "pty")]


TABLES = [
    Table("Processor time of a command, on one CPU", "µs", 1e6, _commands("pinned")),
    Table(
        "Processor time of a command with an answer of 80 bytes, on one CPU",
        "µs",
        1e6,
        _commands("pinned", "answer"),
    ),
    Table("Time on the clock for a command, all CPUs free", "µs", 1e6, _commands("free"), True),
    Table("Processor time of a command, all CPUs free", "µs", 1e6, _commands("free")),
    Table(
        "Processor time of a line",
        "ns",
        1e9,
        [(f"lines-{size}", f"{size} bytes") for size in (16, 80, 1000)],
    ),
    Table(
        "Processor time of a response of 16 MiB",
        "ms",
        1e3,
        [("response-once", "written at once"), ("response-pieces", "in pieces of 4 KiB")],
    ),
    Table("Memory of a connection", "KiB", 1 / 1024, [("memory", "private memory")]),
]


def figure(value):
    """Three digits."""
    if value >= 1000:
        return f"{float(f'{value:.3g}'):,.0f}"
    digits = 0 if value >= 100 else 1 if value >= 10 else 2
    return f"{value:.{digits}f}"


def _cell(result, table):
    if result.excuse:
        return {"missing": "not installed", "unsuited": "–"}.get(result.excuse.split()[0], "failed")
    spread = result.wall if table.is_wall else result.processor
    median, least, greatest = (
        figure(value * table.scale) for value in (spread.median, spread.least, spread.greatest)
    )
    return f"{median} ({least}–{greatest})"


def _notes(results, table):
    notes = []
    for peer in results.peers:
        for task, _ in table.columns:
            result = results.get(task, peer)
            if result.excuse:
                how, _, why = result.excuse.partition(" ")
                notes.append(f"{peer} {why}." if how == "unsuited" else f"{peer}: {how} {why}.")
            if result.shorter:
                kibibytes = result.shorter // 1024
                notes.append(f"{peer}: computed from a response of {kibibytes} KiB.")
    return list(dict.fromkeys(notes))


def _render_table(results, table):
    headings = [f"{heading}, {table.unit}" for _, heading in table.columns]
    lines = [f"### {table.title}", "", "| | " + " | ".join(headings) + " |"]
    lines.append("|---" * (len(headings) + 1) + "|")
    for peer in results.peers:
        cells = [_cell(results.get(task, peer), table) for task, _ in table.columns]
        lines.append(f"| {peer} | " + " | ".join(cells) + " |")
    notes = _notes(results, table)
    if notes:
        lines += ["", " ".join(notes)]
    return "\n".join(lines) + "\n"


def render(results):
    """The generated part, without its marks."""
    lines = ["| | |", "|---|---|"]
    lines += [f"| {name} | {value} |" for name, value in results.machine.items()]
    tables = [_render_table(results, table) for table in TABLES]
    return "\n".join(lines) + "\n\n" + "\n".join(tables)


def renew(page, generated):
    """The page with its generated part replaced."""
    before, begin, rest = page.partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        raise ValueError("the page has no marks around its generated part")
    return f"{before}{BEGIN}\n\n{generated}\n{END}{after}"
