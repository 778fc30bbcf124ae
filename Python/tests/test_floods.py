"""What a device that floods costs: never more than in proportion to the flood."""

import contextlib
import socket
import threading
import time

import pytest
import zephal

PATIENCE = 60.0
SHORTEST = 64 * 1024
# Ends a flood, whatever it has begun.
END = b"\x18\n-the end-\n"

FLOODS = {
    "no delimiter": b"x",
    "line feeds": b"\n",
    "carriage returns": b"\r",
    "near misses": b"=>a-the end",
    "escape sequences": b"\x1b[0m",
    "invalid UTF-8": b"\xff",
}


def serve(listener, waits_for_line, text):
    connection, _ = listener.accept()
    with connection:
        if waits_for_line:
            connection.recv(1024)
        with contextlib.suppress(OSError):  # the console has what it waited for
            connection.sendall(text)
            connection.recv(1)


@contextlib.contextmanager
def flooded_console(folder, text, waits_for_line=False, **options):
    path = folder / "device"
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(path))
        listener.listen()
        peer = threading.Thread(target=serve, args=(listener, waits_for_line, text))
        peer.start()
        try:
            with zephal.Console(f"unix://{path}", prompt="=> ", timeout=PATIENCE, **options) as dut:
                yield dut
        finally:
            peer.join()
            path.unlink()


def expect(folder, flood):
    with flooded_console(folder, flood + END) as dut:
        hit = dut.expect([zephal.regex("panic: [0-9]+"), "-the end-"])
    assert hit.index == 1


def ask(folder, flood):
    with flooded_console(folder, flood + END + b"=> ", waits_for_line=True) as dut:
        assert dut.ask("version").endswith("-the end-\n")


def ask_for_bytes(folder, flood):
    with flooded_console(folder, flood + END + b"=> ", waits_for_line=True, encoding=None) as dut:
        assert dut.ask(b"version").endswith(b"-the end-\n")


def record(folder, flood):
    with flooded_console(folder, flood + END) as dut:
        lines = []
        while not lines or lines[-1].text != "-the end-":
            lines = dut.record(0.02) or lines


def processor_time(use, folder, flood):
    begin = time.process_time()
    use(folder, flood)
    return time.process_time() - begin


@pytest.mark.parametrize("use", [expect, ask, ask_for_bytes, record], ids=lambda use: use.__name__)
@pytest.mark.parametrize("name", FLOODS)
def test_floods_take_linear_time(use, name, tmp_path):
    def best_time(length):
        flood = (FLOODS[name] * length)[:length]
        return min(processor_time(use, tmp_path, flood) for _ in range(3))

    once, four_times = best_time(SHORTEST), best_time(4 * SHORTEST)
    # The square of it would be 16 times as much.
    assert four_times < 8 * once + 0.005, f"{once * 1e3:.1f} ms and {four_times * 1e3:.1f} ms"
