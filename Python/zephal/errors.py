"""What a console raises because of the device or the line."""

from enum import IntEnum


class ErrorCode(IntEnum):
    """The codes of the domain "zephal-console"."""

    OPEN = 1
    """An OpenError that is not the system's."""
    TIMEOUT = 2
    """A Timeout."""
    DISCONNECTED = 3
    """A Disconnected."""
    DEVICE_SWAPPED = 4
    """A DeviceSwapped."""
    CANCELLED = 5
    """A Cancelled."""
    LOGIN_REFUSED = 6
    """A LoginRefused."""
    NO_MATCH = 7
    """A NoMatch."""
    TOO_HARD = 8
    """An Error: an expression takes too many steps."""


class Error(RuntimeError):
    """The base of all that a console raises because of the device or the line.

    Its text names the URL, and never contains a secret that was sent as such.
    """

    domain: str
    """The console's own is "zephal-console"; else that of the part that failed, such as "POSIX"."""
    code: int
    """The code within the domain: an ``ErrorCode`` of the console's; for "POSIX" the errno."""
    url: str
    """The console's URL."""

    def __init__(
        self,
        message: str,
        domain: str,
        code: int,
        url: str,
        received_bytes: bytes = b"",
        waited_for: str = "",
    ) -> None:
        super().__init__(message, domain, code, url, received_bytes, waited_for)
        self.domain = domain
        self.code = code
        self.url = url
        self._received = received_bytes
        self._waited_for = waited_for

    def __str__(self) -> str:
        return str(self.args[0])


class OpenError(Error):
    """The line or a log cannot be opened; the text says why, in the system's words.

    For a failed system call the domain is "POSIX" and the code the errno; for a host name that does
    not resolve the domain is "getaddrinfo".
    """


class WaitError(Error):
    """An operation that waited for the device and ended without a result.

    The base of Timeout and Disconnected. The text shows the end of what was received.
    """

    @property
    def waited_for(self) -> str:
        """What was waited for."""
        return self._waited_for

    @property
    def received(self) -> str:
        """What had arrived and is unread, without escape sequences."""
        return self._received.decode("utf-8", "replace")

    @property
    def received_bytes(self) -> bytes:
        """The same, as bytes."""
        return self._received


class Timeout(WaitError):
    """The time limit has passed. Code 2. What arrived stays unread."""


class Disconnected(WaitError):
    """The line has ended, or was closed. Code 3. ``reopen`` opens it again."""


class DeviceSwapped(Error):
    """A device with a different chip identifier has answered. Code 4.

    Until ``reopen``, every operation fails so.
    """


class Cancelled(Error):
    """``cancel`` ended the operation. Code 5."""


class LoginRefused(Error):
    """The device did not accept the user or the password. Code 6."""


class NoMatch(Error):
    """The answer does not contain what was to be picked out of it. Code 7."""

    @property
    def answer(self) -> str:
        """The whole answer."""
        return self._received.decode("utf-8", "replace")
