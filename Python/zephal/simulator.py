"""A simulated device, for tests without hardware."""

from __future__ import annotations

import os
from dataclasses import dataclass
from types import TracebackType
from typing import Callable, Mapping, Optional, Sequence, Union

from zephal import _zephal
from zephal._text import Text, to_bytes


@dataclass(frozen=True)
class DeviceAnswer:
    """What a simulated device does when it has received a command.

    Mostly just a text, which the device's prompt follows; then the text can be used instead of this.
    """

    text: Text = ""
    """What is sent after the echo."""
    then: str = "prompt"
    """What happens after the text: "prompt", "nothing", "hang_up" or "reboot"."""
    is_silent: bool = False
    """Sends nothing at all."""
    delay: Optional[float] = None
    """How long the answer is delayed, in seconds; None: as the device's other answers."""
    prompt: Optional[Text] = None
    """The prompt after this answer; None: the device's."""
    away: float = 0.0
    """How long the device is gone when it reboots, in seconds."""

    @classmethod
    def silence(cls) -> DeviceAnswer:
        """Neither echo nor text nor prompt."""
        return cls(is_silent=True)

    @classmethod
    def without_prompt(cls, text: Text) -> DeviceAnswer:
        """The text, and no prompt after it."""
        return cls(text, "nothing")

    @classmethod
    def after(cls, delay: float, text: Text) -> DeviceAnswer:
        """The text and the prompt, after ``delay`` seconds."""
        return cls(text, delay=delay)

    @classmethod
    def hang_up(cls, text: Text = "") -> DeviceAnswer:
        """Sends the text and ends the connection."""
        return cls(text, "hang_up")

    @classmethod
    def reboot(cls, text: Text = "", away: float = 0.0) -> DeviceAnswer:
        """Sends the text and reboots; the device comes back ``away`` seconds later."""
        return cls(text, "reboot", away=away)


@dataclass(frozen=True)
class DeviceLogin:
    """A login, as a Linux console asks for it.

    The device asks after it has booted; then it is a console, until ``logout`` is sent or it reboots.
    """

    user: Text = "root"
    """Who may log in."""
    password: Text = ""
    """Empty: the device asks for none."""
    user_prompt: Text = "login: "
    """Asks for the user."""
    password_prompt: Text = "Password: "
    """Asks for the password."""
    refusal: Text = "\nLogin incorrect\n"
    """The answer to a wrong user or password, after which it asks for the user again."""
    welcome: Text = ""
    """Sent after a login, before the prompt."""
    logout: Text = "exit"
    """The command that ends the session."""


Answer = Union[Text, DeviceAnswer]


def _answer(given: Answer) -> _zephal.DeviceAnswer:
    answer = given if isinstance(given, DeviceAnswer) else DeviceAnswer(given)
    return _zephal.DeviceAnswer(
        to_bytes(answer.text),
        answer.then,
        answer.is_silent,
        None if answer.delay is None else float(answer.delay),
        None if answer.prompt is None else to_bytes(answer.prompt),
        float(answer.away),
    )


def _login(given: Union[tuple[Text, Text], DeviceLogin]) -> _zephal.DeviceLogin:
    login = given if isinstance(given, DeviceLogin) else DeviceLogin(*given)
    return _zephal.DeviceLogin(
        to_bytes(login.user),
        to_bytes(login.password),
        to_bytes(login.user_prompt),
        to_bytes(login.password_prompt),
        to_bytes(login.refusal),
        to_bytes(login.welcome),
        to_bytes(login.logout),
    )


class Simulator:
    """A device with a text console, on a pseudo-terminal, a TCP port or a unix socket.

    It runs on a thread of its own, and only this machine can reach it. A context manager, which ends
    it. A system call that fails raises a RuntimeError with the reason.
    """

    def __init__(
        self,
        kind: str = "unix",
        *,
        path: str = "",
        port: int = 0,
        boot_text: Text = "",
        prompt: Text = "=> ",
        terminator: Text = "\n",
        responses: Optional[Mapping[str, Answer]] = None,
        respond: Optional[Callable[[bytes], Answer]] = None,
        login: Optional[Union[tuple[Text, Text], DeviceLogin]] = None,
        echoes: bool = False,
        translates_line_ends: bool = False,
        delay: float = 0.0,
        pause: float = 0.002,
        trickles: bool = False,
        splits_after: Sequence[int] = (),
        splits_prompt_after: Optional[int] = None,
        hangs_up_after: Optional[int] = None,
        is_silent: bool = False,
        floods: bool = False,
    ) -> None:
        """Starts the device.

        - ``kind``: "pty", "tcp" or "unix".
        - ``path``: of the link to the terminal or of the socket; empty: in a folder of its own.
        - ``port``: the TCP port; 0: a free one.
        - ``boot_text``: sent at the start and after each reboot, before the prompt or the login.
        - ``prompt``: sent after each answer.
        - ``terminator``: what ends a command.
        - ``responses``: the answers by command.
        - ``respond``: gives the answer to any other command, on a thread of the device; without it,
          that is the prompt.
        - ``login``: the user and the password that it asks for, or more of it.
        - ``echoes``: sends each command back, except a password.
        - ``translates_line_ends``: sends CR LF for each line feed, as a Linux console does.
        - ``delay``: how long an answer is delayed, in seconds.
        - ``pause``: how long it waits between the parts of an answer in several, in seconds.
        - ``trickles``: sends everything byte by byte.
        - ``splits_after``: splits an answer after so many bytes, in ascending order.
        - ``splits_prompt_after``: splits an answer after so many bytes of the prompt.
        - ``hangs_up_after``: hangs up after so many bytes of an answer.
        - ``is_silent``: reads commands and never answers.
        - ``floods``: sends without end.
        """
        behaviour = _zephal.DeviceBehaviour()
        behaviour.boot_text = to_bytes(boot_text)
        behaviour.prompt = to_bytes(prompt)
        behaviour.terminator = to_bytes(terminator)
        behaviour.responses = {
            to_bytes(command): _answer(answer) for command, answer in (responses or {}).items()
        }
        if respond is not None:
            answer_to = respond
            behaviour.set_respond(lambda command: _answer(answer_to(command)))
        behaviour.login = None if login is None else _login(login)
        behaviour.echoes = echoes
        behaviour.translates_line_ends = translates_line_ends
        behaviour.delay = float(delay)
        behaviour.pause = float(pause)
        behaviour.trickles = trickles
        behaviour.splits_after = list(splits_after)
        behaviour.splits_prompt_after = splits_prompt_after
        behaviour.hangs_up_after = hangs_up_after
        behaviour.is_silent = is_silent
        behaviour.floods = floods
        self._device = _zephal.Simulator(kind, path, port, behaviour)

    @classmethod
    def replay(
        cls,
        log: Union[str, "os.PathLike[str]"],
        kind: str = "unix",
        *,
        path: str = "",
        port: int = 0,
        line_end: Text = "\n",
        prompt: Text = "",
        keeps_pauses: bool = False,
        identifier: str = "pre-",
    ) -> Simulator:
        """Starts a device that plays the conversation in a raw log.

        - ``log``: the file: the ``raw_log`` of a ``Console``, or that of a stack in C++.
        - ``line_end``: what the device sends for each line break, since a log does not tell them
          apart.
        - ``prompt``: the device's prompt, if it sends it in a piece of its own.
        - ``keeps_pauses``: sends each piece as long after the one before it as it came then.
        - ``identifier``: which entries of the log count.
        """
        recording = _zephal.DeviceRecording(
            os.fspath(log), to_bytes(line_end), to_bytes(prompt), keeps_pauses, identifier
        )
        simulator = cls.__new__(cls)
        simulator._device = _zephal.Simulator(kind, path, port, recording)
        return simulator

    def __enter__(self) -> Simulator:
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
    def received(self) -> bytes:
        """Everything that it has received."""
        return self._device.received()

    @property
    def commands(self) -> list[bytes]:
        """The commands that it has received, passwords too."""
        return self._device.commands()

    @property
    def unknown_commands(self) -> list[bytes]:
        """Those of the commands that it has no answer for."""
        return self._device.unknown_commands()

    @property
    def connections(self) -> int:
        """How many connections it has accepted; always 0 on a terminal."""
        return self._device.connections()

    @property
    def is_on(self) -> bool:
        """Whether it can be reached."""
        return self._device.is_on()

    def forget_received(self) -> None:
        """Forgets what it has received, which otherwise needs memory."""
        self._device.forget_received()

    def send(self, data: Text) -> None:
        """Sends bytes unasked."""
        self._device.send(to_bytes(data))

    def hang_up(self) -> None:
        """Ends the connection once everything is sent."""
        self._device.hang_up()

    def reset_connection(self) -> None:
        """Ends a TCP connection with a reset."""
        self._device.reset_connection()

    def stop_listening(self) -> None:
        """Refuses every later connection until ``power_on`` or ``reboot``."""
        self._device.stop_listening()

    def power_off(self) -> None:
        """Goes away, as a USB adapter that is unplugged; unsent bytes are lost."""
        self._device.power_off()

    def power_on(self) -> None:
        """Comes back at the same URL, and boots."""
        self._device.power_on()

    def reboot(self, away: float = 0.0) -> None:
        """Goes away, and comes back at the same URL after ``away`` seconds."""
        self._device.reboot(float(away))

    def wait_for_received(self, data: Text, timeout: float = 30.0) -> bool:
        """Waits until these bytes have been received; False if the time is up."""
        return self._device.wait_for_received(to_bytes(data), float(timeout))

    def wait_for_commands(self, count: int, timeout: float = 30.0) -> bool:
        """Waits until that many commands have been received; False if the time is up."""
        return self._device.wait_for_commands(count, float(timeout))

    def wait_for_connections(self, count: int, timeout: float = 30.0) -> bool:
        """Waits until that many connections have been accepted; False if the time is up."""
        return self._device.wait_for_connections(count, float(timeout))

    def wait_until_all_is_sent(self, timeout: float = 30.0) -> bool:
        """Waits until nothing is left to send; False if the time is up."""
        return self._device.wait_until_all_is_sent(float(timeout))

    def wait_until_on(self, timeout: float = 30.0) -> bool:
        """Waits until it can be reached; False if the time is up."""
        return self._device.wait_until_on(float(timeout))

    def close(self) -> None:
        """Goes away for good."""
        self._device.close()
