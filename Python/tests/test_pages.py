"""Types what the pages show at Python's prompt, and compares the answers."""

import doctest
import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).parents[2]


def transcript(page):
    """The blocks of a page that show Python's prompt, at their lines."""
    text = page.read_text()
    blocks = {match.start(1): match[1] for match in re.finditer(r"```python\n(.*?)```", text, re.S)}
    lines = []
    for start, block in blocks.items():
        if block.startswith(">>> "):
            lines += [""] * (text.count("\n", 0, start) - len(lines)) + block.splitlines()
    return "\n".join(lines) + "\n"


@pytest.mark.parametrize("page", ["Documentation/Console.md"])
def test_answers_as_on_the_page(page, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    shown = transcript(ROOT / page)
    test = doctest.DocTestParser().get_doctest(shown, {}, page, str(ROOT / page), 0)
    assert len(test.examples) > 10
    complaints = []
    runner = doctest.DocTestRunner(optionflags=doctest.ELLIPSIS)
    runner.run(test, out=complaints.append)
    assert runner.failures == 0, "".join(complaints)
