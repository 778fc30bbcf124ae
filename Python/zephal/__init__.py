"""Talk to the console of a device under test: ask, expect, log in, run.

    import zephal

    with zephal.Console("tcp://lab:4001", prompt=zephal.regex(r"root@\\S+# $"), log="dut.log") as dut:
        dut.login("root", os.environ["PW"], timeout=60)
        assert dut.run("systemctl is-active app").status == 0
        volts = dut.ask("adc 3", zephal.regex(r"([\\d.]+) V")).number()
"""

from zephal._zephal import Pattern
from zephal.console import Console, Hit, LoginDialogue, RunResult, TimedLine, regex
from zephal.errors import (
    Cancelled,
    DeviceSwapped,
    Disconnected,
    Error,
    ErrorCode,
    LoginRefused,
    NoMatch,
    OpenError,
    Timeout,
    WaitError,
)
from zephal.simulator import DeviceAnswer, DeviceLogin, Simulator

__all__ = [
    "Cancelled",
    "Console",
    "DeviceAnswer",
    "DeviceLogin",
    "DeviceSwapped",
    "Disconnected",
    "Error",
    "ErrorCode",
    "Hit",
    "LoginDialogue",
    "LoginRefused",
    "NoMatch",
    "OpenError",
    "Pattern",
    "RunResult",
    "Simulator",
    "TimedLine",
    "Timeout",
    "WaitError",
    "regex",
]
