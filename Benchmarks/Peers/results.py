"""What zephalio-peers printed (PeerContest.h), and the lines about the machine before it."""

import dataclasses


@dataclasses.dataclass
class Spread:
    """Median, least and greatest."""

    median: float
    least: float
    greatest: float


@dataclasses.dataclass
class Result:
    """What one peer did in one task: seconds a unit, or bytes of memory."""

    excuse: str = ""  # why there are no figures; empty if there are
    shorter: int = 0  # bytes of the response that was measured instead of a long one
    processor: Spread | None = None
    wall: Spread | None = None


class Results:
    """All of them, by task and peer; peers are in the order of the file."""

    def __init__(self, lines):
        self.machine = {}
        self.peers = []
        self._results = {}
        for line in lines:
            self._read(line.rstrip("\n"))

    def get(self, task, peer):
        return self._results.get((task, peer), Result("failed it was not measured"))

    def _read(self, line):
        if line.startswith("# "):
            name, _, value = line[2:].partition(": ")
            self.machine[name] = value
            return
        task, peer, state, *numbers = line.split("\t")
        if peer not in self.peers:
            self.peers.append(peer)
        result = Result(excuse=state)
        if state == "measured":
            shorter, *times = (float(number) for number in numbers)
            result = Result("", int(shorter), Spread(*times[:3]), Spread(*times[3:]))
        self._results[task, peer] = result
