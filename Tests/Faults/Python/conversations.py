"""Conversations in which one call of the module fails. `try-faults` starts this."""

import ctypes
import errno
import gc
import os
import sys
import tempfile
import time

import zephal

MEMORY = {"malloc": [errno.ENOMEM]}
SYSTEM = {
    "pthread_create": [errno.EAGAIN],
    "open": [errno.EACCES, errno.EMFILE],
    "close": [errno.EIO],
    "read": [errno.EIO, errno.EINTR],
    "write": [errno.EIO, errno.EINTR],
    "send": [errno.EPIPE, errno.EINTR],
    "poll": [errno.ENOMEM, errno.EINTR],
    "fcntl": [errno.EBADF],
    "ioctl": [errno.ENOTTY],
    "tcgetattr": [errno.EIO],
    "tcsetattr": [errno.EIO],
    "socket": [errno.EMFILE],
    "connect": [errno.ECONNREFUSED, errno.ENETUNREACH],
    "setsockopt": [errno.EINVAL],
    "getsockopt": [errno.EINVAL],
    "eventfd": [errno.EMFILE],
    "eventfd_write": [errno.EAGAIN],
    "flock": [errno.EINTR],
}
# What background threads do varies; this ends a run all the same.
MOST_CALLS = 2000

faults = ctypes.PyDLL(None)
faults.zephal_arm.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_int]
faults.zephal_disarm.restype = ctypes.c_size_t


def say(*words):
    os.write(1, (" ".join(words) + "\n").encode())


def restart_device():
    """A new terminal, or listener, without anything of an earlier conversation."""
    say("restart")
    os.read(0, 1)


NAMES = ("descriptors", "threads")


def possessions():
    gc.collect()
    return len(os.listdir("/proc/self/fd")), len(os.listdir("/proc/self/task"))


def left_behind(before):
    """What is more than before, after a while in which threads may end."""
    deadline = time.monotonic() + 10
    now = possessions()
    while any(new > old for new, old in zip(now, before)) and time.monotonic() < deadline:
        time.sleep(0.001)
        now = possessions()
    return [f"{new - old} {name}" for new, old, name in zip(now, before, NAMES) if new > old]


def fails_with(kind, operation):
    """Whether the operation fails so; another failure of the console is passed on."""
    try:
        operation()
    except kind:
        return True
    return False


class Conversation:
    """Opens, talks, waits in vain, loses the device, opens again, closes; with a log."""

    def __init__(self, url, log):
        self._url = url
        self._log = log
        self._console = None

    def run(self, may_fail=True):
        """A problem, or None. Errors of the console, and of memory, are right after a fault."""
        try:
            return self._talk()
        except zephal.Timeout as error:
            return f"waits in vain: {error}"
        except (zephal.Error, MemoryError) as error:
            return None if may_fail else f"raises {error!r}"
        except BaseException as error:
            return f"raises {error!r}"

    def _talk(self):
        self._console = dut = zephal.Console(
            self._url, prompt="=> ", log=self._log, timeout=20, quiet=0.005
        )
        dut.expect("=> ")
        if dut.ask("version") != "1.0\n":
            return "a wrong answer"
        if not fails_with(zephal.Timeout, lambda: dut.ask("silence", timeout=0.02)):
            return "silence is an answer"
        dut.discard()
        if not fails_with(zephal.Disconnected, lambda: dut.ask("bye")):
            return "a lost device answers"
        restart_device()
        dut.reopen()
        # A connection that was opened in vain may have got the greeting.
        dut.send("sync")
        dut.expect("synchronous\n=> ")
        if dut.ask("version", zephal.regex(r"(\d)\.")).number() != 1:
            return "a wrong number"
        dut.close()
        return "not closed" if dut.is_open else None

    def end(self):
        """Closes; a second conversation works. A problem, or None."""
        try:
            if self._console is not None:
                self._console.close()
                self._console = None
            restart_device()
            with zephal.Console(self._url, prompt="=> ", timeout=20) as second:
                second.expect("=> ")
                return None if second.ask("version") == "1.0\n" else "a wrong second answer"
        except BaseException as error:
            return f"then raises {error!r}"


def attempt(url, log, call, number, error):
    """Whether there was a number-th call."""
    say("case", call.decode(), f"number {number} fails with {error}")
    restart_device()
    before = possessions()
    zephal.console._text_pattern.cache_clear()
    conversation = Conversation(url, log)
    faults.zephal_arm(call, number, error)
    problem = conversation.run()
    calls = faults.zephal_disarm()
    if calls >= number:
        say("failed", call.decode())
    problem = problem or conversation.end()
    del conversation
    left = left_behind(before)
    if problem or left:
        say("problem", " ".join([problem or "leaves", *left]))
    return calls >= number


def try_all(url, log, errors_of):
    # What is made once and kept.
    for _ in range(2):
        restart_device()
        conversation = Conversation(url, log)
        if problem := conversation.run(may_fail=False) or conversation.end():
            say("problem", problem)
    del conversation
    gc.freeze()  # to look only at what a conversation makes
    for name, errors in errors_of.items():
        say("function", name)
        call = name.encode()
        for error in errors:
            number = 1
            while number < MOST_CALLS and attempt(url, log, call, number, error):
                number += 1


def main():
    url, part = sys.argv[1:]
    errors_of = {"memory": MEMORY, "system": SYSTEM}[part]
    with tempfile.TemporaryDirectory() as folder:
        try_all(url, os.path.join(folder, "log"), errors_of)


main()
