"""A pytest plugin: the fixture ``console``, and what the device said in the report of a failure.

    pytest --console-url uart:///dev/ttyUSB0?baud=921600 --console-prompt '=> '

Each test has a console of its own. Its log is beside the others in ``--console-logs``, under the
test's name, and its end is shown if the test fails.
"""

from __future__ import annotations

import contextlib
import pathlib
import re
import time
from typing import Any, Iterator

import pytest

from zephal.console import Console, regex
from zephal.errors import Error

_SHOWN = 4000


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("zephal", "the console of a device under test")
    group.addoption("--console-url", help="the URL of the device's console")
    group.addoption("--console-prompt", help="its prompt, as text")
    group.addoption("--console-prompt-regex", help="its prompt, as a regular expression")
    group.addoption("--console-timeout", type=float, default=10.0, help="time limit in seconds")
    group.addoption("--console-logs", default="console-logs", help="the folder for the logs")


def _log_of(request: pytest.FixtureRequest) -> pathlib.Path:
    folder = pathlib.Path(request.config.getoption("--console-logs"))
    folder.mkdir(parents=True, exist_ok=True)
    # Its end tells tests apart, and a file's name has at most 255 bytes.
    return folder / (re.sub(r"[^\w.-]+", "_", request.node.nodeid, flags=re.ASCII)[-200:] + ".log")


# Logs are written on a thread of their own, soon after. The console stays open, because fixtures may
# need it after the test.
def _settled(log: pathlib.Path) -> str:
    said = ""
    for _ in range(10):
        before, said = said, log.read_text(errors="replace") if log.exists() else ""
        if before == said != "":
            break
        time.sleep(0.05)
    return said


@pytest.fixture
def console(request: pytest.FixtureRequest) -> Iterator[Console]:
    """The device's console, open during the test. Without ``--console-url`` the test is skipped."""
    option = request.config.getoption
    url = option("--console-url")
    if url is None:
        pytest.skip("no --console-url was given")
    expression = option("--console-prompt-regex")
    prompt: Any = regex(expression) if expression is not None else option("--console-prompt")
    log = _log_of(request)
    log.unlink(missing_ok=True)
    request.node.stash[_LOG] = log
    with Console(url, prompt=prompt, log=str(log), timeout=option("--console-timeout")) as dut:
        request.node.stash[_CONSOLE] = dut
        yield dut


_LOG: pytest.StashKey[pathlib.Path] = pytest.StashKey()
_CONSOLE: pytest.StashKey[Console] = pytest.StashKey()


@pytest.hookimpl(hookwrapper=True)  # type: ignore[misc]  # pytest 7 has no types for it
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> Iterator[None]:
    outcome: Any = yield
    report = outcome.get_result()
    if not report.failed or _LOG not in item.stash:
        return
    if _CONSOLE in item.stash:
        with contextlib.suppress(Error):
            item.stash[_CONSOLE].write(b"", timeout=0)  # now the log has the line that has begun too
    said = _settled(item.stash[_LOG]).strip()
    report.sections.append((f"Console ({item.stash[_LOG]})", said[-_SHOWN:]))
