"""What a console raises because of the device or the line."""


class Error(RuntimeError):
    """The base of all of them.

    ``domain`` and ``code`` are "zephal-console" and a number for the console's own errors, or those
    of the part that reported the failure, such as "POSIX" and an errno. ``url`` is the console's.
    """

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
    """The line or a log cannot be opened; the message says why, in the system's words."""


class WaitError(Error):
    """An operation that waited for the device and ended without a result."""

    @property
    def waited_for(self) -> str:
        """What was waited for."""
        return self._waited_for

    @property
    def received(self) -> str:
        """What had arrived and is unread."""
        return self._received.decode("utf-8", "replace")

    @property
    def received_bytes(self) -> bytes:
        """The same, as bytes."""
        return self._received


class Timeout(WaitError):
    """The time limit has passed. What arrived stays unread."""


class Disconnected(WaitError):
    """The line has ended, or was closed. ``reopen`` opens it again."""


class DeviceSwapped(Error):
    """A device with a different chip identifier has answered."""


class Cancelled(Error):
    """``cancel`` ended the operation."""


class LoginRefused(Error):
    """The device did not accept the user or the password."""


class NoMatch(Error):
    """The answer does not contain what was to be picked out of it."""

    @property
    def answer(self) -> str:
        """The whole answer."""
        return self._received.decode("utf-8", "replace")
