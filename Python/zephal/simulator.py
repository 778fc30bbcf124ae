"""A simulated device, for tests without hardware."""

from __future__ import annotations

from types import TracebackType
from typing import Mapping, Optional

from zephal import _zephal
from zephal._text import Text, to_bytes


class Simulator:
    """A device with a text console, on a pseudo-terminal, a TCP port or a unix socket.

    It runs on a thread of its own, and only this machine can reach it. A context manager, which ends
    it.
    """

    def __init__(
        self,
        kind: str = "unix",
        *,
        boot_text: Text = "",
        prompt: Text = "=> ",
        responses: Optional[Mapping[str, Text]] = None,
        login: Optional[tuple[str, str]] = None,
        echoes: bool = False,
        translates_line_ends: bool = False,
        delay: float = 0.0,
        trickles: bool = False,
        is_silent: bool = False,
        floods: bool = False,
    ) -> None:
        """Starts the device.

        - ``kind``: "pty", "tcp" or "unix".
        - ``boot_text``: sent at the start and after each reboot, before the prompt or the login.
        - ``prompt``: sent after each answer.
        - ``responses``: the answers by command. Any other command is answered with the prompt.
        - ``login``: the user and the password that it asks for.
        - ``echoes``: sends each command back, except a password.
        - ``translates_line_ends``: sends CR LF for each line feed, as a Linux console does.
        - ``delay``: how long an answer is delayed, in seconds.
        - ``trickles``: sends everything byte by byte.
        - ``is_silent``: reads commands and never answers.
        - ``floods``: sends without end.
        """
        answers = {to_bytes(command): to_bytes(answer) for command, answer in (responses or {}).items()}
        self._device = _zephal.Simulator(
            kind,
            to_bytes(boot_text),
            to_bytes(prompt),
            answers,
            login,
            echoes,
            translates_line_ends,
            delay,
            trickles,
            is_silent,
            floods,
        )

    def __enter__(self) -> "Simulator":
        return self

    def __exit__(
        self,
        kind: Optional[type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.close()

    @property
    def url(self) -> str:
        """The URL for a ``Console``."""
        return self._device.url()

    @property
    def commands(self) -> list[bytes]:
        """The commands that it has received, passwords too."""
        return self._device.commands()

    def send(self, data: Text) -> None:
        """Sends bytes unasked."""
        self._device.send(to_bytes(data))

    def hang_up(self) -> None:
        """Ends the connection once everything is sent."""
        self._device.hang_up()

    def reboot(self, away: float = 0.0) -> None:
        """Goes away, and comes back at the same URL after ``away`` seconds."""
        self._device.reboot(away)

    def wait_for_commands(self, count: int, timeout: float = 30.0) -> bool:
        """Waits until that many commands have been received; False if the time is up."""
        return self._device.wait_for_commands(count, timeout)

    def close(self) -> None:
        """Goes away for good."""
        self._device.close()
