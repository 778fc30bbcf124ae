"""The peers that are Python packages, with the protocol of PeerWorker.h.

    python_peers.py PEER URL DELIMITER TRAFFIC CPU

PEER is a name in PEERS, TRAFFIC is commands, lines or response. Each is used as its documentation
says, with a timeout, and returns each response as an object of bytes.
"""

import os
import sys
import time

TIMEOUT = 10
FIRST_CONNECTIONS = 10  # for what the first ones cost once for all


def leave_contest(how, why):
    print(how, why, flush=True)
    os._exit(1)


class Zephal:
    """The package of this repository; commands are asked, anything longer is sent and expected."""

    def __init__(self, url, delimiter, traffic):
        import zephal

        self.delimiter = delimiter
        self.asks = traffic == "commands"
        self.command = b""
        # By default, the oldest bytes of 16 MiB and a prompt would be dropped.
        limit = 17 << 20 if traffic == "response" else 16 << 20
        self.console = zephal.Console(
            url, prompt=delimiter, timeout=TIMEOUT, limit=limit, encoding=None
        )

    def write(self, command):
        if self.asks:
            self.command = command
        else:
            self.console.send(command)

    def read_response(self):
        if self.asks:
            return len(self.console.ask(self.command)) + len(self.delimiter)
        hit = self.console.expect(self.delimiter)
        return len(hit.before) + len(hit.text)


class Pexpect:
    """expect_exact on a descriptor (fdspawn)."""

    MAXREAD = 65536  # of long responses

    def __init__(self, url, delimiter, traffic):
        import pexpect.fdpexpect

        self.delimiter = delimiter
        maxread = self.MAXREAD if traffic == "response" else 2000  # the default
        self.spawn = pexpect.fdpexpect.fdspawn(self.connect(url), timeout=TIMEOUT, maxread=maxread)
        self.tune()

    def tune(self):
        self.spawn.delayafterread = None  # "for performance reasons", in pexpect's words

    @staticmethod
    def connect(url):
        import socket
        import tty

        scheme, place = url.split("://")
        if scheme == "uart":
            descriptor = os.open(place, os.O_RDWR | os.O_NOCTTY)
            tty.setraw(descriptor)
            return descriptor
        if scheme == "unix":
            connection = socket.socket(socket.AF_UNIX)
            connection.connect(place)
        else:
            host, port = place.split(":")
            connection = socket.create_connection((host, int(port)))
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return connection.detach()

    def write(self, command):
        self.spawn.sendline(command)

    def read_response(self):
        self.spawn.expect_exact(self.delimiter)
        return len(self.spawn.before) + len(self.spawn.after)


class UntunedPexpect(Pexpect):
    """The same with the settings that it comes with."""

    MAXREAD = 2000

    def tune(self):
        pass


class Pyserial:
    """read_until on a port, or on a socket:// URL."""

    def __init__(self, url, delimiter, traffic):
        import serial

        self.delimiter = delimiter
        scheme, place = url.split("://")
        if scheme == "unix":
            leave_contest("unsuited", "opens no unix sockets")
        name = place if scheme == "uart" else "socket://" + place
        self.port = serial.serial_for_url(name, baudrate=115200, timeout=TIMEOUT)

    def write(self, command):
        self.port.write(command + b"\n")

    def read_response(self):
        return len(self.port.read_until(self.delimiter))


# Package and class. `read_response` waits for a response and returns its length.
PEERS = {
    "zephal, Python": ("zephal", Zephal),
    "pexpect": ("python3-pexpect", Pexpect),
    "pexpect as it comes": ("python3-pexpect", UntunedPexpect),
    "pyserial": ("python3-serial", Pyserial),
}


def measure(peer, commands, responses, length, command):
    start = time.process_time()
    wall_start = time.perf_counter()
    for _ in range(commands):
        peer.write(command)
        for _ in range(responses):
            received = peer.read_response()
            if received != length:
                leave_contest("failed", f"{received} bytes instead of {length}")
    print(time.process_time() - start, time.perf_counter() - wall_start, flush=True)


def private_bytes():
    with open("/proc/self/smaps_rollup", encoding="ascii") as file:
        for line in file:
            if line.startswith("Private_Dirty:"):
                return int(line.split()[1]) * 1024
    return leave_contest("failed", "no smaps_rollup")


def hold(connect, count, held):
    before = 0
    for i in range(FIRST_CONNECTIONS + count):
        if i == FIRST_CONNECTIONS:
            before = private_bytes()
        held.append(connect())
        held[-1].write(b"ping")
        held[-1].read_response()
    print((private_bytes() - before) / count, 0, flush=True)


def work(connect):
    peer = connect()
    held = []
    print("ready", flush=True)
    for line in sys.stdin:
        what, count, *rest = line.rstrip("\n").split(" ", 3)
        if what == "hold":
            hold(connect, int(count), held)
        elif what == "ask":
            measure(peer, int(count), 1, int(rest[0]), rest[1].encode())
        else:
            measure(peer, 1, int(count), int(rest[0]), rest[1].encode())


def main():
    _, name, url, delimiter, traffic, cpu = sys.argv
    if int(cpu) >= 0:
        os.sched_setaffinity(0, {int(cpu)})
    package, peer = PEERS[name]
    try:
        work(lambda: peer(url, delimiter.encode(), traffic))
    except ImportError:
        leave_contest("missing", package)
    except Exception as error:  # whatever a package raises, it takes no further part
        leave_contest("failed", repr(error))


if __name__ == "__main__":
    main()
