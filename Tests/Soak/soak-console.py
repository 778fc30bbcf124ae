"""Stacks in Python, next to the station of ZephalIOSoak, which starts this program.

    soak-console.py REPORT FOLDER SECONDS SEED FIRST_DEVICE URL...

Each thread talks to one device through a console and checks every byte. Now and then all of them
rest, and what the process has is counted. REPORT gets what came of it, as JSON. The exit status is 0
only if nothing happened that must not.
"""

import ctypes
import gc
import json
import os
import random
import re
import sys
import threading
import time
from collections import Counter

import zephal

TOKEN = re.compile(rb"(\d{3})\.(\d{5})\.(\d{7})(?:\.;\n|=> |\?.\d{7}\n)")
PATIENCE = 20.0
COUNTED_EVERY = 60.0


class Mallinfo2(ctypes.Structure):
    """What mallinfo2(3) returns."""

    _fields_ = [(name, ctypes.c_size_t) for name in (
        "arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks",
        "fordblks", "keepcost")]


LIBC = ctypes.CDLL(None)
LIBC.mallinfo2.restype = Mallinfo2


class Checker:
    """Every token of one device once and in order."""

    def __init__(self, device):
        self.device = device
        self.connection = 0
        self.next = 0
        self.is_due = True
        self.damage = Counter()

    def start_connection(self):
        self.is_due = True

    def feed(self, answer):
        at = 0
        while at < len(answer):
            token = TOKEN.match(answer, at)
            if token is None:
                self.damage["foreign"] += len(answer) - at
                return
            at = token.end()
            if b"?" not in token[0]:  # an echo
                self.take(int(token[1]), int(token[2]), int(token[3]))

    def take(self, device, connection, number):
        if self.is_due and connection > self.connection:
            self.connection, self.next, self.is_due = connection, 0, False
        if device != self.device or connection != self.connection:
            self.damage["foreign"] += 20
            return
        self.damage["lost"] += max(0, number - self.next) * 20
        self.damage["doubled"] += max(0, self.next - number) * 20
        self.next = number + 1


class Worker:
    """One console after the other, at one device."""

    def __init__(self, device, url, folder, seed):
        self.device, self.url = device, url
        self.log = f"{folder}/python.{device}.log"
        self.random = random.Random(seed * 1000 + device)
        self.checker = Checker(device)
        self.errors = Counter()
        self.commands = self.sessions = self.log_lines = self.log_lines_lost = self.late = 0

    def open(self):
        end = time.monotonic() + PATIENCE
        while True:
            try:
                return zephal.Console(self.url, prompt="=> ", raw_log=self.log, encoding=None)
            except zephal.Error as error:
                self.errors[f"open: {error.domain} {error.code}"] += 1
                if time.monotonic() > end:
                    raise
                time.sleep(0.05)

    def command(self, session, number):
        mode, amount = self.random.choices(
            (("N", 30), ("T", 20), ("P", 20), ("F", 4000), ("C", 100)), (80, 6, 10, 1, 3))[0]
        self.commands += 1
        return "%03d.%05d.%07d?%s%07d" % (
            self.device, session, number, mode, self.random.randint(0, amount))

    def session(self):
        self.sessions += 1
        self.checker.start_connection()
        sent = []
        with self.open() as console:
            try:
                self.talk(console, sent)
            except zephal.Disconnected as error:
                self.errors[f"cut: {error.domain} {error.code}"] += 1
            except zephal.Timeout:
                self.late += 1
        self.check_log(sent)

    def talk(self, console, sent):
        try:
            for number in range(self.random.randint(3, 30)):
                sent.append(self.command(self.sessions, number))
                answer = console.ask(sent[-1], timeout=PATIENCE)
                self.checker.feed(answer + b"=> ")
                time.sleep(self.random.uniform(0, 0.3))
        except zephal.Timeout:
            self.late += 1
        # The device of a terminal does not notice that it is closed.
        sent.append("%03d.%05d.%07d?C0000000" % (self.device, self.sessions, len(sent)))
        console.send(sent[-1])
        console.expect("nothing more", timeout=PATIENCE)

    def check_log(self, sent):
        with open(self.log, "rb") as file:
            lines = file.read().decode().split("\n")
        os.unlink(self.log)
        written = [line.split("]: ", 1)[1] for line in lines if "-write>" in line]
        missing = len(sent) - sum(command in written for command in sent)
        self.log_lines += len(lines)
        self.log_lines_lost += missing

    def work_until(self, end):
        while time.monotonic() < end:
            self.session()


def census(begin):
    """What the process has while no console is there."""
    gc.collect()
    with open("/proc/self/status", encoding="ascii") as status:
        values = dict(line.split(":", 1) for line in status)
    heap = LIBC.mallinfo2()
    return {
        "seconds": round(time.monotonic() - begin, 1),
        "residentKiB": int(values["VmRSS"].split()[0]),
        "heapBytes": heap.uordblks + heap.hblkhd,
        "threads": int(values["Threads"]),
        "descriptors": len(os.listdir("/proc/self/fd")) - 1,
    }


def run(workers, seconds):
    begin = time.monotonic()
    counts = [census(begin)]
    while time.monotonic() < begin + seconds:
        end = min(time.monotonic() + min(COUNTED_EVERY, seconds / 3), begin + seconds)
        threads = [threading.Thread(target=worker.work_until, args=(end,)) for worker in workers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        counts.append(census(begin))
    return counts


def main(arguments):
    report, folder, seconds, seed, first, *urls = arguments
    workers = [Worker(int(first) + index, url, folder, int(seed))
               for index, url in enumerate(urls)]
    counts = run(workers, float(seconds))
    damage = sum((worker.checker.damage for worker in workers), Counter())
    result = {
        "consoles": len(workers),
        "sessions": sum(worker.sessions for worker in workers),
        "commands": sum(worker.commands for worker in workers),
        **{name: damage[name] for name in ("lost", "doubled", "foreign")},
        "logLines": sum(worker.log_lines for worker in workers),
        "logLinesLost": sum(worker.log_lines_lost for worker in workers),
        "late": sum(worker.late for worker in workers),
        "errors": dict(sorted(sum((worker.errors for worker in workers), Counter()).items())),
        "start": counts[0], "warm": counts[1], "end": counts[-1],
    }
    with open(report, "w", encoding="ascii") as file:
        json.dump(result, file)
    is_whole = not damage.total() and result["logLinesLost"] == 0 and result["late"] == 0
    grew = any(counts[-1][name] > counts[1][name] for name in ("threads", "descriptors"))
    grew |= counts[-1]["heapBytes"] > counts[1]["heapBytes"] + 64 * 1024
    grew |= counts[-1]["residentKiB"] > counts[1]["residentKiB"] + 16 * 1024
    sys.exit(0 if is_whole and not grew else 1)


if __name__ == "__main__":
    main(sys.argv[1:])
