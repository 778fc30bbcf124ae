"""The console, its results, and their asyncio twins."""

from __future__ import annotations

import os
from dataclasses import dataclass
from datetime import datetime
from functools import lru_cache
from types import TracebackType
from typing import Any, Callable, NamedTuple, Optional, Sequence, Union, overload

from zephal import _zephal
from zephal._text import Text, to_bytes
from zephal._threads import asynchronously
from zephal._zephal import Pattern

AnyPattern = Union[str, bytes, Pattern]
Path = Union[str, "os.PathLike[str]"]


@lru_cache(maxsize=64)
def _text_pattern(text: bytes) -> Pattern:
    return _zephal.text(text)


def _pattern(pattern: AnyPattern) -> Pattern:
    return pattern if isinstance(pattern, Pattern) else _text_pattern(to_bytes(pattern))


def _optional_pattern(pattern: Optional[AnyPattern]) -> Optional[Pattern]:
    return None if pattern is None else _pattern(pattern)


def regex(expression: Text) -> Pattern:
    """A regular expression over the bytes that a device sends: pcre2pattern(3), not Python's own.

    "." matches any byte except a line feed, "^" the beginning of what is unread, and "$" the end of
    what has arrived: not in front of a final line feed, which may turn out not to be final. Options
    begin the expression: (?i) ignores case, (?m) lets "^" and "$" match at every line, (?s) lets "."
    match line feeds. A character outside ASCII is several bytes, so write ``(?:ä)?``.

    Raises ValueError, with the position, for an expression that PCRE2 does not accept; and for one
    with which a match would depend on how the bytes were cut on their way, such as ``\\G``.
    """
    return _zephal.regex(to_bytes(expression))


@dataclass(frozen=True)
class Hit:
    """Where a pattern was found. Texts are bytes if the console has no encoding."""

    index: int
    """Which of the patterns, counted from 0."""
    before: Any
    """What was unread before the match."""
    groups: tuple[Any, ...]
    """The match, then its groups; None for a group that took no part."""
    time: datetime
    """When the last byte of the match was read, in local time."""
    lost: int
    """How many bytes in front of ``before`` were dropped because nobody read them."""

    @property
    def text(self) -> Any:
        """The match."""
        return self.groups[0]

    def group(self, number: int = 0) -> Any:
        """A group; None if it took no part. Raises IndexError if there is no such group."""
        return self.groups[number]

    def number(self, group: int = 1) -> float:
        """A group as a number; hexadecimal after "0x". Raises ValueError if it is none."""
        text = self.groups[group]
        if text is None:
            raise ValueError("the group took no part in the match")
        text = (text.decode() if isinstance(text, bytes) else text).strip()
        if "_" in text:
            raise ValueError(f"not a number: {text!r}")
        if text.lstrip("+-")[:2] in ("0x", "0X"):
            return float.fromhex(text)
        return float(text)


class RunResult(NamedTuple):
    """The result of ``Console.run``."""

    output: Any
    """What the command printed; lines end in a line feed."""
    status: int
    """Its exit status."""


@dataclass(frozen=True)
class LoginDialogue:
    """What a device says when somebody logs in. None is what most devices say."""

    user: Optional[AnyPattern] = None
    """Asks for the user: by default "login:" or "username:", in either case."""
    password: Optional[AnyPattern] = None
    """Asks for the password: by default "password:"."""
    refused: Optional[AnyPattern] = None
    """Says that user or password are wrong."""


class TimedLine(NamedTuple):
    """A line of a recording."""

    time: datetime
    """When its last byte was read, in local time."""
    text: Any
    """The line, without its line break."""


class Console:
    """A device's console, over a serial line, a TCP connection or a unix socket.

    A context manager, which closes it at the end. Every operation has a time limit in seconds, its
    own or that of the console, and raises Timeout after it; Disconnected if the line ends;
    DeviceSwapped; Cancelled. Ctrl-C ends a wait at once. Any thread may call anything; operations
    run one at a time.

    What the device sends is read all the time, and kept up to a limit.
    """

    url: str
    """The URL, as it was given."""

    def __init__(
        self,
        url: str,
        *,
        prompt: Optional[AnyPattern] = None,
        log: Path = "",
        raw_log: Path = "",
        timeout: float = 10.0,
        quiet: float = 0.05,
        line_end: Text = "\n",
        keep_escapes: bool = False,
        limit: int = 16 << 20,
        ecid: Optional[int] = None,
        encoding: Optional[str] = "utf-8",
        errors: str = "replace",
    ) -> None:
        """Opens the line. Raises OpenError, also if a log cannot be opened, and Timeout.

        - ``url``: ``uart:///dev/ttyUSB0?baud=921600``, ``tcp://HOST:PORT``, ``telnet://HOST:PORT`` or
          ``unix:///PATH``.
        - ``prompt``: what the device prints when it is ready for the next command; ``ask``, ``run``,
          ``login`` and ``reboot`` need it.
        - ``log``, ``raw_log``: files for every line that is read and written, and for the bytes as
          they arrive and leave, with their times; empty for none. They are appended to.
        - ``timeout``: the time limit, in seconds, of operations that are not given one.
        - ``quiet``: how long, in seconds, the device must be silent for a match at the end of what
          has arrived to count, if more bytes could still change it.
        - ``line_end``: what ends a line that is sent.
        - ``keep_escapes``: leaves ANSI escape sequences in what is matched and returned.
        - ``limit``: how many unread bytes are kept. If more arrive, the oldest are dropped.
        - ``ecid``: the chip identifier of the one device that may answer.
        - ``encoding``, ``errors``: how results are decoded (see ``bytes.decode``). With
          ``encoding=None`` they are bytes.
        """
        self.url = url
        self._encoding = encoding
        self._errors = errors
        console = _zephal.BytesConsole.unopened()
        console.open(
            url,
            _optional_pattern(prompt),
            os.fspath(log),
            os.fspath(raw_log),
            timeout,
            quiet,
            to_bytes(line_end),
            keep_escapes,
            limit,
            ecid,
        )
        self._console = console

    @classmethod
    async def open_async(cls, url: str, **options: Any) -> "Console":
        """Opens a console without holding up the loop; the options are those of ``Console``."""
        return await asynchronously(cls, url, **options)

    def __enter__(self) -> "Console":
        return self

    def __exit__(
        self,
        kind: Optional[type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()

    async def __aenter__(self) -> "Console":
        return self

    async def __aexit__(
        self,
        kind: Optional[type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()

    def _text(self, data: Optional[bytes]) -> Any:
        if data is None or self._encoding is None:
            return data
        return data.decode(self._encoding, self._errors)

    def _hit(self, found: tuple[int, bytes, tuple[Optional[bytes], ...], float, int]) -> Hit:
        index, before, groups, time, lost = found
        hit = Hit.__new__(Hit)
        # At a third of what the initializer of a frozen class costs.
        hit.__dict__.update(
            index=index,
            before=self._text(before),
            groups=tuple([self._text(group) for group in groups]),
            time=datetime.fromtimestamp(time),
            lost=lost,
        )
        return hit

    def expect(
        self, patterns: Union[AnyPattern, Sequence[AnyPattern]], timeout: Optional[float] = None
    ) -> Hit:
        """Waits for one of the patterns: the one whose match begins first, then the one listed first.

        A str or bytes is looked for as it is. What follows the match stays unread. How the bytes were
        cut on their way makes no difference: while more bytes could still make a match begin earlier
        or end later, it waits for them, or for the device to be quiet.
        """
        several = [patterns] if isinstance(patterns, (str, bytes, Pattern)) else patterns
        return self._hit(self._console.expect([_pattern(one) for one in several], timeout))

    @overload
    def ask(self, command: Text, *, timeout: Optional[float] = ...) -> Any: ...
    @overload
    def ask(self, command: Text, pick: AnyPattern, *, timeout: Optional[float] = ...) -> Hit: ...

    def ask(
        self,
        command: Text,
        pick: Optional[AnyPattern] = None,
        *,
        timeout: Optional[float] = None,
    ) -> Any:
        """Sends a command and returns the answer, or what ``pick`` finds in it.

        The echo and the prompt are removed, and lines end in a line feed. What was unread before is
        dropped. If an earlier command ran out of time, its prompt is waited for first, so that a late
        answer never passes for this one's. Raises NoMatch if there is nothing to pick.
        """
        if pick is None:
            return self._text(self._console.ask(to_bytes(command), timeout))
        return self._hit(self._console.ask_and_pick(to_bytes(command), _pattern(pick), timeout))

    def run(self, command: Text, *, timeout: Optional[float] = None) -> RunResult:
        """Runs a command in a POSIX shell and asks for its exit status."""
        output, status = self._console.run(to_bytes(command), timeout)
        return RunResult(self._text(output), status)

    def login(
        self,
        user: Text,
        password: Text,
        *,
        timeout: Optional[float] = None,
        dialogue: LoginDialogue = LoginDialogue(),
    ) -> None:
        """Logs in, whatever the device is waiting for.

        Nothing is sent if it shows the prompt, only the password if it asks for that. The password is
        in no log and no exception. Raises LoginRefused. ``dialogue`` says how the device asks.
        """
        self._console.login(
            to_bytes(user),
            to_bytes(password),
            _optional_pattern(dialogue.user),
            _optional_pattern(dialogue.password),
            _optional_pattern(dialogue.refused),
            timeout,
        )

    def send(self, line: Text, *, timeout: Optional[float] = None) -> None:
        """Sends a line, with the line end after it."""
        self._console.send(to_bytes(line), timeout)

    def send_secret(self, line: Text, *, timeout: Optional[float] = None) -> None:
        """Sends a line that appears in no log and no exception.

        If the device echoes it, the echo shows as ``***`` everywhere.
        """
        self._console.send_secret(to_bytes(line), timeout)

    def write(self, data: Text, *, timeout: Optional[float] = None) -> None:
        """Sends bytes as they are."""
        self._console.write(to_bytes(data), timeout)

    def send_control(self, name: str, *, timeout: Optional[float] = None) -> None:
        """Sends a control character, by name.

        "interrupt" (Ctrl-C), "eof" (Ctrl-D), "suspend" (Ctrl-Z), "quit" (Ctrl and backslash), "escape", "tab",
        "backspace", "delete", "enter", "xon", "xoff", or a letter for that letter's ("c"). Raises
        ValueError for another name.
        """
        self._console.send_control(name, timeout)

    def interrupt(self, *, timeout: Optional[float] = None) -> None:
        """Sends Ctrl-C to the device."""
        self.send_control("interrupt", timeout=timeout)

    def record(self, duration: float) -> list[TimedLine]:
        """Everything that arrives within ``duration`` seconds, by lines. Never raises Timeout."""
        return [
            TimedLine(datetime.fromtimestamp(time), self._text(text))
            for time, text in self._console.record(duration)
        ]

    def discard(self) -> None:
        """Drops what is unread, and no longer waits for the prompts of earlier commands."""
        self._console.discard()

    def reopen(self, *, timeout: Optional[float] = None) -> None:
        """Closes, if it is open, and opens again, trying until the time limit.

        What was unread is dropped. The logs go on in the same files. Raises the last OpenError if it
        never succeeded.
        """
        self._console.reopen(timeout)

    def reboot(self, command: Text, *, timeout: Optional[float] = None) -> Any:
        """Sends a command that restarts the device, and returns what it printed up to the prompt.

        If the line goes away meanwhile, opens it again.
        """
        return self._text(self._console.reboot(to_bytes(command), timeout))

    def cancel(self) -> None:
        """Ends, from any thread, all operations that are running or waiting, with Cancelled.

        Does nothing to later ones.
        """
        self._console.cancel()

    def close(self) -> None:
        """Closes the line and the logs; a running operation raises Disconnected.

        Does nothing if it is closed. ``reopen`` opens it again.
        """
        self._console.close()

    @property
    def is_open(self) -> bool:
        """Whether there is a line that, as far as is known, has not ended."""
        return self._console.is_open()

    @property
    def lost(self) -> int:
        """How many bytes were dropped so far because nobody read them."""
        return self._console.lost()

    async def expect_async(
        self, patterns: Union[AnyPattern, Sequence[AnyPattern]], timeout: Optional[float] = None
    ) -> Hit:
        """``expect`` for asyncio.

        Cancelling the task ends it, and what arrived stays unread.
        """
        return await asynchronously(self.expect, patterns, timeout)

    async def ask_async(
        self,
        command: Text,
        pick: Optional[AnyPattern] = None,
        *,
        timeout: Optional[float] = None,
    ) -> Any:
        """``ask`` for asyncio.

        If the task is cancelled after the command was sent, the next ``ask`` waits for its prompt first,
        as after a Timeout.
        """
        ask: Callable[..., Any] = self.ask
        return await asynchronously(ask, command, pick, timeout=timeout)

    async def run_async(self, command: Text, *, timeout: Optional[float] = None) -> RunResult:
        """``run`` for asyncio."""
        return await asynchronously(self.run, command, timeout=timeout)

    async def login_async(
        self,
        user: Text,
        password: Text,
        *,
        timeout: Optional[float] = None,
        dialogue: LoginDialogue = LoginDialogue(),
    ) -> None:
        """``login`` for asyncio."""
        await asynchronously(self.login, user, password, timeout=timeout, dialogue=dialogue)

    async def send_async(self, line: Text, *, timeout: Optional[float] = None) -> None:
        """``send`` for asyncio."""
        await asynchronously(self.send, line, timeout=timeout)

    async def send_secret_async(self, line: Text, *, timeout: Optional[float] = None) -> None:
        """``send_secret`` for asyncio."""
        await asynchronously(self.send_secret, line, timeout=timeout)

    async def write_async(self, data: Text, *, timeout: Optional[float] = None) -> None:
        """``write`` for asyncio."""
        await asynchronously(self.write, data, timeout=timeout)

    async def send_control_async(self, name: str, *, timeout: Optional[float] = None) -> None:
        """``send_control`` for asyncio."""
        await asynchronously(self.send_control, name, timeout=timeout)

    async def interrupt_async(self, *, timeout: Optional[float] = None) -> None:
        """``interrupt`` for asyncio."""
        await asynchronously(self.interrupt, timeout=timeout)

    async def discard_async(self) -> None:
        """``discard`` for asyncio."""
        await asynchronously(self.discard)

    async def record_async(self, duration: float) -> list[TimedLine]:
        """``record`` for asyncio."""
        return await asynchronously(self.record, duration)

    async def reopen_async(self, *, timeout: Optional[float] = None) -> None:
        """``reopen`` for asyncio."""
        await asynchronously(self.reopen, timeout=timeout)

    async def reboot_async(self, command: Text, *, timeout: Optional[float] = None) -> Any:
        """``reboot`` for asyncio."""
        return await asynchronously(self.reboot, command, timeout=timeout)
