"""Devices at the end of serial lines, for tests: a shell, and ser2net in front of a line."""

import os
import pathlib
import subprocess
import time

PATIENCE = 120.0
PROMPT = "board# "


def wait_until(condition):
    """What ``condition`` returns once that is true; fails after a while."""
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.01)
    raise AssertionError("waited in vain")


class Process:
    def __init__(self, *command, **options):
        self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **options)

    @property
    def pid(self):
        assert self._process.poll() is None, "ended by itself"
        return self._process.pid

    def close(self):
        self._process.kill()
        self._process.wait()

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()


class SerialShell(Process):
    """A shell at the end of the serial line ``path``. The line may be closed and opened again."""

    def __init__(self, folder, command="bash --norc --noprofile -i"):
        # Drivers turn off the messages of the device's kernel, which here is this machine's.
        tools = folder / "tools"
        tools.mkdir(exist_ok=True)
        (tools / "dmesg").write_text("#!/bin/sh\n")
        (tools / "dmesg").chmod(0o755)
        link = folder / "line"
        environment = {"PATH": f"{tools}:{os.environ['PATH']}", "PS1": PROMPT, "TERM": "xterm"}
        line = f"PTY,link={link},rawer"
        shell = f"EXEC:{command},pty,setsid,ctty,stderr"
        super().__init__("socat", line, shell, env=environment)
        self.path = os.path.realpath(wait_until(lambda: link.exists() and link))
        # Held open, because the shell ends when nobody has the line open.
        self._hold = os.open(self.path, os.O_RDWR | os.O_NOCTTY)

    def close(self):
        super().close()
        os.close(self._hold)


class Ser2net(Process):
    """Makes a serial line a TCP port, ``port``; with telnet and RFC 2217, or raw."""

    def __init__(self, folder, path, protocol="raw", port=0):
        config = folder / "ser2net.yaml"
        layer = "telnet(rfc2217)," if protocol == "rfc2217" else ""
        config.write_text(
            "connection: &board\n"
            f"  accepter: {layer}tcp,127.0.0.1,{port}\n"
            f"  connector: serialdev(nouucplock=true),{path},115200n81,local\n"
        )
        super().__init__("/usr/sbin/ser2net", "-n", "-c", str(config))
        self.port = wait_until(lambda: listening_port(self.pid))


def listening_port(pid):
    """The TCP port on which a process listens; None if there is none yet."""
    process = pathlib.Path("/proc", str(pid))
    mine = set()
    for descriptor in (process / "fd").iterdir():
        try:
            mine.add(os.readlink(descriptor))
        except FileNotFoundError:
            pass
    for line in (process / "net/tcp").read_text().splitlines()[1:]:
        fields = line.split()
        if fields[3] == "0A" and f"socket:[{fields[9]}]" in mine:
            return int(fields[1].split(":")[1], 16)
    return None
