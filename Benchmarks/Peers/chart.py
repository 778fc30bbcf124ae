"""The chart: a panel for each of four tasks, a row for each peer, on logarithmic scales."""

import dataclasses
import math
from xml.sax.saxutils import escape

from page import figure


@dataclasses.dataclass
class Panel:
    task: str
    title: str
    scale: float  # seconds or bytes times this are the title's units


PANELS = [
    Panel("command-TCP-pinned", "A command over TCP, µs of processor time", 1e6),
    Panel("lines-80", "A line of 80 bytes, ns of processor time", 1e9),
    Panel("response-once", "A response of 16 MiB, ms of processor time", 1e3),
    Panel("memory", "A connection, KiB of memory", 1 / 1024),
]

WIDTH, PANEL_WIDTH, MARGIN = 860, 410, 20
LABELS, VALUES = 170, 56  # to the left and right of the plot
ROW, HEAD, FOOT = 20, 48, 12

STYLE = """
  svg { font: 12px system-ui, sans-serif; --paper: #ffffff; --ink: #1f2328; --faint: #d1d9e0;
        --muted: #59636e; --ours: #0969da; --theirs: #8c6a1f; }
  @media (prefers-color-scheme: dark) {
    svg { --paper: #0d1117; --ink: #f0f6fc; --faint: #3d444d; --muted: #9198a1; --ours: #58a6ff;
          --theirs: #d4a72c; }
  }
  .paper { fill: var(--paper); }
  text { fill: var(--ink); }
  .title { font-weight: 600; font-size: 13px; }
  .tick, .note { fill: var(--muted); font-size: 11px; }
  .grid { stroke: var(--faint); }
  .limit { stroke: var(--muted); stroke-dasharray: 3 3; }
  .theirs { fill: var(--theirs); stroke: var(--theirs); }
  .ours { fill: var(--ours); stroke: var(--ours); }
  .raw { fill: var(--muted); stroke: var(--muted); }
  text.ours { font-weight: 600; stroke: none; }
"""


def _class_of(peer):
    if peer == "raw loop":
        return "raw"
    return "ours" if peer.lower().startswith("zephal") else "theirs"


def _text(x, y, text, kind="", anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}">{escape(text)}</text>'


def _line(x1, y1, x2, y2, kind):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


class _Axis:
    """Powers of ten that enclose the values."""

    def __init__(self, values, left, width):
        positive = [value for value in values if value > 0] or [1]
        self.first = math.floor(math.log10(min(positive)))
        self.last = max(math.ceil(math.log10(max(positive))), self.first + 1)
        self._left, self._width = left, width

    def place(self, value):
        share = (math.log10(max(value, 10**self.first)) - self.first) / (self.last - self.first)
        return self._left + share * self._width

    def ticks(self):
        return [10.0**power for power in range(self.first, self.last + 1)]


def _tick_label(value):
    for size, letter in ((1e6, "M"), (1e3, "k")):
        if value >= size:
            return f"{value / size:.0f}{letter}"
    return f"{value:g}"


def _row(result, panel, axis, peer, left, y):
    kind = _class_of(peer)
    parts = [_text(left, y + 4, peer, "ours" if kind == "ours" else "")]
    if result.excuse:
        reason = "not installed" if result.excuse.startswith("missing") else "–"
        return parts + [_text(left + LABELS, y + 4, reason, "note")]
    spread = result.processor
    x, least, greatest = (
        axis.place(value * panel.scale) for value in (spread.median, spread.least, spread.greatest)
    )
    parts.append(_line(least, y, greatest, y, kind))
    parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4" class="{kind}"/>')
    value = figure(spread.median * panel.scale)
    return parts + [_text(max(x, greatest) + 8, y + 4, value, "ours" if kind == "ours" else "")]


def _panel(results, panel, left, top):
    rows = [(peer, results.get(panel.task, peer)) for peer in results.peers]
    measured = [result.processor for _, result in rows if not result.excuse]
    values = [value * panel.scale for s in measured for value in (s.least, s.greatest)]
    axis = _Axis(values, left + LABELS, PANEL_WIDTH - LABELS - VALUES)
    bottom = top + HEAD + ROW * len(rows)
    parts = [_text(left, top + 18, panel.title, "title")]
    for tick in axis.ticks():
        x = axis.place(tick)
        parts.append(_line(x, top + HEAD - 8, x, bottom - 4, "grid"))
        parts.append(_text(x, top + HEAD - 12, _tick_label(tick), "tick", "middle"))
    limit = results.get(panel.task, "raw loop")
    if not limit.excuse:
        x = axis.place(limit.processor.median * panel.scale)
        parts.append(_line(x, top + HEAD - 8, x, bottom - 4, "limit"))
    for index, (peer, result) in enumerate(rows):
        parts += _row(result, panel, axis, peer, left, top + HEAD + ROW * index + 4)
    return parts


def render(results):
    """The whole SVG file."""
    panel_height = HEAD + ROW * len(results.peers) + FOOT
    height = 2 * MARGIN + 2 * panel_height
    parts = [f'<rect width="{WIDTH}" height="{height}" rx="8" class="paper"/>']
    for index, panel in enumerate(PANELS):
        left = MARGIN + (index % 2) * (PANEL_WIDTH + MARGIN)
        parts += _panel(results, panel, left, MARGIN / 2 + (index // 2) * panel_height)
    note = "Less is better. Logarithmic scales. Dot: median; bar: least to greatest; dashed: raw loop."
    parts.append(_text(MARGIN, height - 14, note, "note"))
    body = "\n".join(parts)
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" '
        f'height="{height}" role="img">\n<title>ZephalIO and its peers</title>\n'
        f"<style>{STYLE}</style>\n{body}\n</svg>\n"
    )
