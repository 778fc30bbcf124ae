"""A driver for labgrid 0.4: the console for its other drivers, and for commands.

    imports: [zephal.labgrid]
    targets:
      main:
        resources:
          NetworkSerialPort: {host: lab1, port: 4001, protocol: raw}
        drivers:
          ZephalDriver: {prompt: 'root@\\S+# $', log: dut.log}

Needs labgrid (Debian: python3-labgrid). Nothing else in this package imports this module.
"""

from __future__ import annotations

import copy
import logging
import secrets
import time
import urllib.parse
from typing import Any, Optional

import attr
from labgrid.driver import Driver
from labgrid.driver.commandmixin import CommandMixin
from labgrid.driver.consoleexpectmixin import ConsoleExpectMixin
from labgrid.factory import target_factory
from labgrid.protocol import CommandProtocol, ConsoleProtocol
from labgrid.resource import NetworkSerialPort
from labgrid.step import step
from labgrid.util import PtxExpect
from labgrid.util.proxy import proxymanager
from pexpect import TIMEOUT

from zephal._text import to_bytes
from zephal.console import Console, regex
from zephal.errors import Timeout, WaitError

_FIRST = regex(r"(?s)\A.")
_EVERYTHING = regex(r"(?s)\A.+")

_IS_TEXT = attr.validators.instance_of(str)


def _url_of(port: Any) -> str:
    """The URL of a resource, through labgrid's proxy if it has one."""
    if not isinstance(port, NetworkSerialPort):
        return f"uart://{urllib.parse.quote(port.port)}?baud={port.speed}"
    host, number = proxymanager.get_host_and_port(port)
    host = f"[{host}]" if ":" in host else host
    if port.protocol == "raw":
        return f"tcp://{host}:{number}"
    if port.protocol == "rfc2217":
        return f"telnet://{host}:{number}?baud={port.speed}"
    raise ValueError(f"a NetworkSerialPort has the protocol raw or rfc2217, not {port.protocol}")


def _until(end: float) -> float:
    return max(0.0, end - time.monotonic())


def _lines_of(output: str) -> list[str]:
    lines = output.split("\n")
    return lines if lines[-1] else lines[:-1]


@target_factory.reg_driver
@attr.s(eq=False)
class ZephalDriver(
    CommandMixin, ConsoleExpectMixin, Driver, ConsoleProtocol, CommandProtocol
):
    """A device's console for labgrid: what other drivers read, write and expect, and a shell.

    ``read``, ``write``, ``expect``, ``sendline``, ``sendcontrol`` and ``settle`` are those that
    labgrid's drivers have: ``expect`` knows Python's regular expressions, and raises pexpect's
    TIMEOUT. ``run``, ``run_check``, ``wait_for`` and ``poll_until_success`` need a POSIX shell on
    the device and its ``prompt``. They drop what is unread. If a driver such as labgrid's
    ShellDriver is on top of this one, it is what labgrid finds for commands.

    Activating opens the console, and raises OpenError if that fails; deactivating closes it. If the
    line ends, everything raises Disconnected until ``reopen``.
    """

    bindings = {"port": {"SerialPort", "NetworkSerialPort"}}
    priorities = {CommandProtocol: -10}

    prompt: str = attr.ib(default="", validator=_IS_TEXT)
    """A regular expression; without it there are no commands."""
    username: str = attr.ib(default="", validator=_IS_TEXT)
    """If there is one, activating logs in."""
    password: str = attr.ib(default="", validator=_IS_TEXT, repr=False)
    """The user's password."""
    login_timeout: float = attr.ib(default=60.0, converter=float)
    """The limit in seconds of a login, for a device that boots."""
    log: str = attr.ib(default="", validator=_IS_TEXT)
    """A file for every line with its time, relative to the environment's."""
    raw_log: str = attr.ib(default="", validator=_IS_TEXT)
    """A file for the bytes as they arrive and leave, likewise."""
    timeout: float = attr.ib(default=10.0, converter=float)
    """The limit in seconds of what is given none: opening, writing, the console's operations."""
    quiet: float = attr.ib(default=0.05, converter=float)
    """How long in seconds the device must be silent for a match that more bytes could change."""
    line_end: str = attr.ib(default="\n", validator=_IS_TEXT)
    """What ends a line that is sent."""
    keep_escapes: bool = attr.ib(default=False, validator=attr.validators.instance_of(bool))
    """Whether ``read`` and ``expect`` see escape sequences, as binary transfers need."""
    txdelay: float = attr.ib(default=0.0, converter=float)
    """Seconds before each byte that ``write`` sends."""

    def __attrs_post_init__(self) -> None:
        super().__attrs_post_init__()
        self.logger = logging.getLogger(f"{self}:{self.target}")
        self._console: Optional[Console] = None

    def on_activate(self) -> None:
        """Opens the console, and logs in if there is a user."""
        console = Console(
            _url_of(self.port),
            prompt=regex(self.prompt) if self.prompt else None,
            log=self._path(self.log),
            raw_log=self._path(self.raw_log),
            timeout=self.timeout,
            quiet=self.quiet,
            line_end=self.line_end,
            keep_escapes=self.keep_escapes,
        )
        try:
            self._log_in(console)
        except BaseException:
            console.close()
            raise
        self._console = console
        self._start_over()

    def on_deactivate(self) -> None:
        """Closes the console."""
        if self._console is not None:
            self._console.close()
        self._console = None

    @property
    @Driver.check_active
    def console(self) -> Console:
        """The console itself, for all that labgrid has no word for."""
        assert self._console is not None
        return self._console

    @property
    def _bytes(self) -> Console:
        # The same console, with results as they arrived.
        console = copy.copy(self._console)
        assert console is not None
        console._encoding = None
        return console

    def _path(self, path: str) -> str:
        if not path or self.target.env is None:
            return path
        return str(self.target.env.config.resolve_path(path))

    def _log_in(self, console: Console) -> None:
        if self.username:
            console.login(self.username, self.password, timeout=self.login_timeout)

    # Drops what `expect` has read beyond its last match.
    def _forget(self) -> None:
        self._expect = PtxExpect(self)
        self._expect.linesep = to_bytes(self.line_end)

    def _start_over(self) -> None:
        self._forget()
        self._may_be_owed_prompts = True

    # A shell that has just started, or that somebody else has written to, may still print prompts.
    # None of them may pass for the end of a command's output.
    def _await_shell(self, end: float) -> None:
        if not self._may_be_owed_prompts:
            return
        marker = secrets.token_hex(8)
        self.console.send(f"echo {marker[:8]}''{marker[8:]}")
        self.console.expect(marker, _until(end))
        self.console.expect(regex(self.prompt), _until(end))
        self.console.discard()
        self._may_be_owed_prompts = False

    def _arriving(self, timeout: float) -> bytes:
        """What has arrived, after waiting for its first byte; nothing if there is none in time."""
        data = b""
        try:
            data = self._bytes.expect(_FIRST, timeout).text
            return data + bytes(self._bytes.expect(_EVERYTHING, 0).text)
        except Timeout:
            return data
        except WaitError:
            if not data:
                raise
            return data

    def _read(self, size: int = 1, timeout: float = 0.0) -> bytes:
        end = time.monotonic() + timeout
        data = more = self._arriving(timeout)
        while more and len(data) < size:
            more = self._arriving(_until(end))
            data += more
        if not data:
            raise TIMEOUT(f"nothing arrived within {timeout:g} seconds")
        return data

    def _write(self, data: bytes) -> int:
        self._may_be_owed_prompts = True
        self.console.write(data)
        return len(data)

    def _run(
        self,
        cmd: str,
        *,
        timeout: float = 30.0,
        codec: str = "utf-8",
        decodeerrors: str = "strict",
    ) -> tuple[list[str], list[str], int]:
        if not self.prompt:
            raise ValueError("ZephalDriver needs the attribute prompt to run commands")
        end = time.monotonic() + timeout
        self._forget()
        try:
            self._await_shell(end)
            output, status = self._bytes.run(cmd, timeout=_until(end))
        except Timeout as error:
            raise TIMEOUT(str(error)) from error
        return _lines_of(output.decode(codec, decodeerrors)), [], status

    @Driver.check_active
    @step(args=["cmd"], result=True)
    def run(
        self,
        cmd: str,
        timeout: float = 30.0,
        codec: str = "utf-8",
        decodeerrors: str = "strict",
    ) -> tuple[list[str], list[str], int]:
        """Runs a command: the lines that it printed, an empty list, and its exit status.

        A serial line carries no error output of its own; it is among the lines that were printed.
        Raises pexpect's TIMEOUT, with a zephal.Timeout as its cause. The next command then waits
        for this one's prompt first.
        """
        return self._run(cmd, timeout=timeout, codec=codec, decodeerrors=decodeerrors)

    def get_status(self) -> int:
        """1 if there is a line that, as far as is known, has not ended; else 0."""
        return int(self._console is not None and self._console.is_open)

    @Driver.check_active
    @step(args=["char"])
    def sendcontrol(self, char: str) -> None:
        """Sends a control character: a letter for its own, or a name that the console knows."""
        self._may_be_owed_prompts = True
        self.console.send_control(char)

    @Driver.check_active
    @step()
    def reopen(self, timeout: Optional[float] = None) -> None:
        """Opens the line again, trying until the time limit, for a device that comes back."""
        self._start_over()
        self.console.reopen(timeout=timeout)

    @Driver.check_active
    @step()
    def login(self) -> None:
        """Logs in as ``username``, whatever the device is waiting for. Raises LoginRefused."""
        self._start_over()
        self._log_in(self.console)
