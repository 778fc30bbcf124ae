import ast
import asyncio
import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import sys
import threading
import time

import pytest
import zephal

PATIENCE = 20.0


def board(**options):
    return zephal.Simulator(
        responses={"version": "board 1.0\n", "adc 3": "adc 3: 3.25 V\n", "odd": b"\xff\n"},
        echoes=True,
        translates_line_ends=True,
        **options,
    )


@pytest.fixture(params=["unix", "tcp", "pty"])
def device(request):
    with board(kind=request.param) as simulator:
        yield simulator


@pytest.fixture
def dut(device):
    with zephal.Console(device.url, prompt="=> ", timeout=PATIENCE) as console:
        yield console


def test_asks_and_picks(dut):
    assert dut.ask("version") == "board 1.0\n"
    assert dut.ask("adc 3", zephal.regex(r"([\d.]+) V")).number() == 3.25


def test_decodes_or_gives_bytes(device):
    with zephal.Console(device.url, prompt="=> ", encoding=None) as raw:
        assert raw.ask(b"odd") == b"\xff\n"
    with zephal.Console(device.url, prompt=b"=> ", errors="backslashreplace") as text:
        assert text.ask("odd") == "\\xff\n"


def test_finds_the_first_of_several_patterns(device, dut):
    device.send("boot\nlogin: ")
    hit = dut.expect(["Password: ", zephal.regex("(log)(out)?in: $")])
    assert (hit.index, hit.before.strip(), hit.text) == (1, "boot", "login: ")
    assert hit.groups == ("login: ", "log", None)
    assert hit.time.timestamp() == pytest.approx(time.time(), abs=60)


def test_timeout_tells_what_came(device, dut):
    device.send("booting...")
    dut.expect("boot")  # then the rest has come too
    with pytest.raises(zephal.Timeout) as caught:
        dut.expect("login: ", timeout=0.01)
    assert caught.value.received == "ing..."
    assert caught.value.waited_for == '"login: "'
    assert isinstance(caught.value, RuntimeError)


def test_open_error_tells_why():
    with pytest.raises(zephal.OpenError, match="Connection refused") as caught:
        zephal.Console("tcp://127.0.0.1:1")
    assert caught.value.domain == "POSIX"


def test_wrong_arguments_are_value_errors(dut):
    with pytest.raises(ValueError):
        zephal.regex("(")
    with pytest.raises(ValueError):
        dut.send_control("break")
    with pytest.raises(ValueError):
        zephal.Simulator("carrier pigeon")


def test_logs_in_after_a_wrong_password():
    with zephal.Simulator(login=("root", "secret"), prompt="# ") as device:
        with zephal.Console(device.url, prompt="# ", timeout=PATIENCE) as dut:
            with pytest.raises(zephal.LoginRefused):
                dut.login("root", "wrong")
            dut.login("root", "secret")


def test_reopens_after_a_reboot(device, dut):
    device.reboot(0.1)
    with pytest.raises(zephal.Disconnected):
        dut.expect("never")
    dut.reopen()
    assert dut.ask("version") == "board 1.0\n"


def test_records_lines_with_times():
    with zephal.Simulator(boot_text="one\ntwo\n") as device:
        with zephal.Console(device.url) as dut:
            lines = dut.record(2.0)
    assert [line.text for line in lines] == ["one", "two", "=> "]


def test_other_threads_run_while_one_waits(dut):
    ended = threading.Event()

    def cancel():
        while not ended.wait(0.01):
            dut.cancel()

    thread = threading.Thread(target=cancel)
    thread.start()
    with pytest.raises(zephal.Cancelled):
        dut.expect("never")
    ended.set()
    thread.join()


@contextlib.contextmanager
def interrupted_after(seconds):
    def interrupt(number, frame):
        raise KeyboardInterrupt

    before = signal.signal(signal.SIGALRM, interrupt)
    signal.setitimer(signal.ITIMER_REAL, seconds)
    try:
        yield
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, before)


def test_control_c_ends_a_wait(dut):
    with interrupted_after(0.1), pytest.raises(KeyboardInterrupt):
        dut.expect("never", timeout=3600)
    assert dut.ask("version") == "board 1.0\n"


def test_asyncio_twins(device):
    async def both():
        with zephal.Console(device.url, prompt="=> ", timeout=PATIENCE) as dut:
            waiting = asyncio.create_task(dut.expect_async("never", timeout=3600))
            await asyncio.sleep(0)
            waiting.cancel()
            with pytest.raises(asyncio.CancelledError):
                await waiting
            hit = await dut.ask_async("adc 3", zephal.regex(r"([\d.]+) V"))
            return await dut.ask_async("version"), hit.number()

    assert asyncio.run(both()) == ("board 1.0\n", 3.25)


def test_hit_numbers():
    def hit(text):
        return zephal.Hit(0, "", ("", text), None, 0)

    assert hit(" 0x1F").number() == 31
    assert hit("-0x10").number() == -16
    assert hit("1e3\r").number() == 1000
    assert hit("0x1.8").number() == 1.5
    with pytest.raises(ValueError):
        hit("1_000").number()
    with pytest.raises(ValueError):
        hit("volts").number()
    with pytest.raises(IndexError):
        hit("1").number(2)


def test_a_pattern_has_the_docstrings_of_its_stub():
    stub = ast.parse((pathlib.Path(zephal.__file__).parent / "_zephal.pyi").read_text())
    (described,) = [node for node in stub.body if getattr(node, "name", "") == "Pattern"]
    assert zephal.Pattern.__doc__ == ast.get_docstring(described)
    for node in described.body:
        if isinstance(node, ast.FunctionDef) and node.name != "__init__":
            assert getattr(zephal.Pattern, node.name).__doc__ == ast.get_docstring(node)


def test_eight_devices_at_once():
    devices = [board() for _ in range(8)]

    async def ask(url):
        with zephal.Console(url, prompt="=> ", timeout=PATIENCE) as dut:
            return await dut.ask_async("version")

    async def all_of_them():
        return await asyncio.gather(*(ask(device.url) for device in devices))

    assert asyncio.run(all_of_them()) == ["board 1.0\n"] * 8
    for device in devices:
        device.close()


def test_a_pattern_that_is_no_text_is_shown(dut):
    with pytest.raises(zephal.Timeout) as caught:
        dut.expect(b"\xff\x00", timeout=0.01)
    assert caught.value.waited_for == r'"\xff\x00"'


def test_sixteen_consoles_in_sixteen_threads():
    answers = [None] * 16

    def ask(number):
        with board() as device, zephal.Console(device.url, prompt="=> ", timeout=PATIENCE) as console:
            answers[number] = {console.ask("version") for _ in range(20)}

    threads = [threading.Thread(target=ask, args=(number,)) for number in range(16)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert answers == [{"board 1.0\n"}] * 16


def test_reopening_leaks_no_descriptor_and_no_thread():
    def counts():
        return len(os.listdir("/proc/self/fd")), len(os.listdir("/proc/self/task"))

    with board() as device, zephal.Console(device.url, prompt="=> ", timeout=PATIENCE) as console:
        assert console.ask("version") == "board 1.0\n"
        before = counts()
        for _ in range(1000):
            console.reopen()
        assert console.ask("version") == "board 1.0\n"
        assert counts() == before


def test_threads_that_wait_for_their_turn_can_be_cancelled(dut):
    ended = []

    def wait():
        try:
            dut.expect("never", timeout=3600)
        except zephal.Cancelled as error:
            ended.append(error.code)

    threads = [threading.Thread(target=wait) for _ in range(4)]
    for thread in threads:
        thread.start()
    while len(ended) < 4:
        dut.cancel()
        time.sleep(0.001)
    for thread in threads:
        thread.join()
    assert ended == [5] * 4


def test_close_in_one_thread_ends_the_wait_of_another(dut):
    def is_busy():
        try:
            dut.expect("never", timeout=0)
        except zephal.Timeout as error:
            return error.waited_for == "another operation to end"

    def close():
        while not is_busy():
            time.sleep(0.001)
        dut.close()

    thread = threading.Thread(target=close)
    thread.start()
    with pytest.raises(zephal.Disconnected, match="the console is closed"):
        dut.expect("never", timeout=3600)
    thread.join()


def test_control_c_ends_the_opening(tmp_path):
    with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX) as peer:
        listener.bind(str(tmp_path / "full"))
        listener.listen(0)
        peer.connect(str(tmp_path / "full"))
        with interrupted_after(0.1), pytest.raises(KeyboardInterrupt):
            zephal.Console(f"unix://{tmp_path}/full", timeout=3600)


def test_control_c_ends_a_wait_during_a_flood():
    with zephal.Simulator(floods=True) as device, zephal.Console(device.url) as console:
        with interrupted_after(0.1), pytest.raises(KeyboardInterrupt):
            console.expect("never", timeout=3600)


def test_a_process_ends_although_a_daemon_thread_waits(tmp_path):
    script = (
        "import threading, zephal\n"
        "device = zephal.Simulator(is_silent=True)\n"
        "dut = zephal.Console(device.url, timeout=3600)\n"
        "threading.Thread(target=dut.expect, args=('never',), daemon=True).start()\n"
        "try:\n"
        "    while not dut.expect('x', timeout=0): pass\n"
        "except zephal.Timeout: pass\n"
    )
    ended = subprocess.run(
        [sys.executable, "-c", script], capture_output=True, timeout=60, cwd=tmp_path, text=True
    )
    # Whether the thread still reports its Cancelled is a matter of luck.
    assert ended.returncode == 0, ended.stderr
    assert "Fatal" not in ended.stderr


def test_a_forked_child_leaves_the_console_alone(dut):
    assert dut.ask("version") == "board 1.0\n"
    child = os.fork()
    if child == 0:
        signal.alarm(30)
        try:
            dut.ask("version")
        except zephal.Disconnected:
            dut.close()
            del dut
            os._exit(0)
        os._exit(1)
    assert os.waitpid(child, 0)[1] == 0
    assert dut.ask("version") == "board 1.0\n"


def test_logs_may_be_paths(device, tmp_path):
    log = tmp_path / "dut.log"
    with zephal.Console(device.url, prompt="=> ", log=log, raw_log=tmp_path / "raw.log") as console:
        console.ask("version")
    assert "board 1.0" in log.read_text()
    assert "board 1.0" in (tmp_path / "raw.log").read_text()


def test_codes_are_those_of_the_console(dut):
    with pytest.raises(zephal.Timeout) as raised:
        dut.expect("never", timeout=0)
    assert raised.value.code == zephal.ErrorCode.TIMEOUT
    assert raised.value.domain == "zephal-console"
    with pytest.raises(zephal.NoMatch) as missed:
        dut.ask("version", "never")
    assert missed.value.code == zephal.ErrorCode.NO_MATCH
