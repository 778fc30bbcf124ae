"""Texts and expressions against Python's own `re` and against pexpect, where they promise the same.

Streams, patterns and cuts are random. ZEPHAL_ORACLE_SEED repeats a failure, whose message names the
seed; ZEPHAL_ORACLE_ROUNDS asks for more of them.
"""

import os
import random
import re
import socket

import pexpect
import pytest
import zephal

SEED = int(os.environ.get("ZEPHAL_ORACLE_SEED", "1"))
ROUNDS = int(os.environ.get("ZEPHAL_ORACLE_ROUNDS", "150"))
PATIENCE = 30.0

# Bytes that matter to a console: line ends, what begins escapes is left out, UTF-8 and what is not.
ALPHABET = [b"a", b"b", b"c", b"1", b" ", b"\n", b"\r", b"\x00", "ä".encode(), b"\xff"]


class Line:
    """A console, and the other end of its line."""

    def __init__(self, folder):
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(f"{folder}/line")
        self._listener.listen(1)
        self._url = f"unix://{folder}/line"
        # Only more bytes, or the end of the stream, decide.
        self.console = zephal.Console(self._url, encoding=None, timeout=PATIENCE, quiet=PATIENCE)
        self.peer = self._listener.accept()[0]

    def hits(self, pieces, patterns):
        """What is found one after the other in a stream that arrives so and ends."""
        with self.peer:
            for piece in pieces:
                self.peer.sendall(piece)
        found = []
        try:
            while len(found) < 50:
                hit = self.console.expect(patterns)
                found.append((hit.index, hit.before, hit.groups))
                if hit.text == b"":  # it would be found again and again
                    break
        except zephal.Disconnected as end:
            found.append(end.received_bytes)
        self.console.reopen()
        self.peer = self._listener.accept()[0]
        return found

    def close(self):
        self.console.close()
        self.peer.close()
        self._listener.close()


@pytest.fixture
def line(tmp_path):
    opened = Line(tmp_path)
    yield opened
    opened.close()


def stream(chance):
    return b"".join(chance.choices(ALPHABET, k=chance.randrange(40)))


def cut(chance, whole):
    pieces = []
    while whole:
        size = chance.choice([1, 1, 2, 3, 8, len(whole)])
        pieces.append(whole[:size])
        whole = whole[size:]
    return pieces


def atom(chance, depth):
    kind = chance.randrange(9 if depth else 5)
    if kind < 3:
        return re.escape(chance.choice(ALPHABET[:6]))
    if kind == 3:
        return chance.choice([b".", rb"\d", rb"\s", rb"\w", rb"\xff", rb"\x00", b"[^a]", b"[a-c]"])
    if kind == 4:
        return chance.choice([b"[bc1]", b"(?:ab|a)", b"(?i:A)", "ä".encode()])
    inner = expression(chance, depth - 1)
    return {
        5: b"(" + inner + b")",
        6: b"(?=" + inner + b")",
        7: b"(?!" + inner + b")",
        8: b"(?:" + inner + b")" + chance.choice([b"?", b"*", b"+", b"{1,2}", b"*?", b"+?"]),
    }[kind]


def expression(chance, depth=2):
    """An expression that means the same in PCRE2, over bytes, and in `re`."""
    branches = []
    for _ in range(chance.choice([1, 1, 2])):
        parts = [atom(chance, depth) for _ in range(chance.randrange(1, 4))]
        branches.append(b"".join(parts))
    return b"|".join(branches)


def ended(chance, source):
    """Sometimes with an anchor; re's own end of a text is \\Z."""
    return chance.choice([source] * 4 + [b"(?:" + source + rb")\Z", b"^(?:" + source + b")"])


def found_by_re(whole, expressions):
    compiled = [re.compile(one) for one in expressions]
    found = []
    while len(found) < 50:
        matches = [(match.start(), index, match) for index, one in enumerate(compiled)
                   if (match := one.search(whole))]
        if not matches:
            return found + [whole]
        _, index, match = min(matches, key=lambda one: one[:2])
        found.append((index, whole[: match.start()], (match[0], *match.groups())))
        whole = whole[match.end() :]
        if match[0] == b"":
            break
    return found


def chances():
    """A seed and its random numbers, for each round."""
    for seed in range(SEED, SEED + ROUNDS):
        yield seed, random.Random(seed)


# A group in a loop, or in a lookahead that fails, keeps a different one of its values in each engine.
def comparable(found):
    return [one if isinstance(one, bytes) else (one[0], one[1], one[2][0]) for one in found]


def test_expressions_are_found_as_re_finds_them(line):
    for seed, chance in chances():
        whole = stream(chance)
        sources = [ended(chance, expression(chance)) for _ in range(chance.randrange(1, 4))]
        expected = comparable(found_by_re(whole, sources))
        patterns = [zephal.regex(source) for source in sources]
        pieces = cut(chance, whole)
        found = comparable(line.hits(pieces, patterns))
        assert found == expected, f"seed {seed}: {sources} in {pieces}"


def test_groups_are_those_of_re(line):
    for seed, chance in chances():
        whole = stream(chance)
        source = rb"(a)|([bc]+)(1)?|(\d)(?P<rest>[^\n]*)"
        pieces = cut(chance, whole)
        found = line.hits(pieces, [zephal.regex(source)])
        assert found == found_by_re(whole, [source]), f"seed {seed}: {pieces}"


def found_by_pexpect(whole, texts):
    searcher = pexpect.searcher_string(texts)
    found = []
    while len(found) < 50:
        index = searcher.search(whole, len(whole))
        if index < 0:
            return found + [whole]
        found.append((index, whole[: searcher.start], (searcher.match,)))
        whole = whole[searcher.end :]
    return found


def test_texts_are_found_as_pexpect_finds_them(line):
    for seed, chance in chances():
        whole = stream(chance)
        texts = [b"".join(chance.choices(ALPHABET[:4], k=chance.randrange(1, 4))) for _ in range(3)]
        pieces = cut(chance, whole)
        expected = found_by_pexpect(whole, texts)
        assert line.hits(pieces, texts) == expected, f"seed {seed}: {texts} in {pieces}"


def test_every_cut_of_utf8_and_of_an_escape_gives_the_same(line):
    whole = "Gerät \x1b[1;32mbereit\x1b[0m \x1b]0;Titel\x07€ 5\r\n=> ".encode() + b"\xff\x00end"
    patterns = ["€ ", zephal.regex(rb"\xff\x00e"), zephal.regex("(?:ä)t ")]
    expected = line.hits([whole], patterns)
    assert [one[0] for one in expected[:-1]] == [2, 0, 1]
    for at in range(len(whole) + 1):
        assert line.hits([whole[:at], whole[at:]], patterns) == expected, at
    assert line.hits([whole[at : at + 1] for at in range(len(whole))], patterns) == expected


def test_hostile_expressions_end_with_an_error(line):
    line.peer.sendall(b"a" * 5000 + b"!")
    line.console.expect(b"a")
    for source in [b"(a+)+$", b"(?:a|aa)+b", b"(?:a*)*b", b"^(?:(?:a|a)*)*b"]:
        try:
            line.console.expect(zephal.regex(source), timeout=0.2)
        except zephal.Timeout:
            pass  # it was not too hard
        except zephal.Error as error:
            assert error.code == 8
            assert "too many steps to match" in str(error)
    assert line.console.expect(b"!").before == b"a" * 4999
