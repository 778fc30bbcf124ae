import ast
import asyncio
import pathlib
import signal
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
    with pytest.raises(zephal.Timeout) as caught:
        dut.expect("login: ", timeout=0.2)
    assert caught.value.received == "booting..."
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


def test_control_c_ends_a_wait(dut):
    def interrupt(number, frame):
        raise KeyboardInterrupt

    before = signal.signal(signal.SIGALRM, interrupt)
    try:
        signal.setitimer(signal.ITIMER_REAL, 0.1)
        with pytest.raises(KeyboardInterrupt):
            dut.expect("never", timeout=3600)
    finally:
        signal.signal(signal.SIGALRM, before)
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
