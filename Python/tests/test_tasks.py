"""What a new user wants to do first, in at most ten lines each."""

import contextlib
import inspect
from concurrent.futures import ThreadPoolExecutor

import pytest
import zephal


def board(kind="unix"):
    return zephal.Simulator(
        kind,
        boot_text="booting\n",
        login=("root", "secret"),
        prompt="# ",
        echoes=True,
        translates_line_ends=True,
        responses={"adc 3": "adc 3: 3.25 V\n", "uname": "Linux\n"},
    )


def log_in(url, passwords):
    with zephal.Console(url, prompt="# ", timeout=20) as dut:
        for password in passwords:
            try:
                dut.login("root", password)
                break
            except zephal.LoginRefused:
                pass
        return dut.ask("uname")


def test_login_that_survives_a_wrong_password():
    with board() as device:
        assert log_in(device.url, ["wrong", "secret"]) == "Linux\n"


def volts(url):
    with zephal.Console(url, prompt="# ", timeout=20) as dut:
        dut.login("root", "secret")
        return dut.ask("adc 3", zephal.regex(r"([\d.]+) V")).number()


def test_value_out_of_an_answer():
    with board() as device:
        assert volts(device.url) == 3.25


def record_for(url, seconds):
    with zephal.Console(url) as dut:
        return dut.record(seconds)


def test_record_for_a_while_with_times():
    with board() as device:
        lines = record_for(device.url, 2)
    assert [line.text for line in lines] == ["booting", "login: "]
    assert lines[0].time <= lines[1].time


def reconnect(dut):
    try:
        dut.expect("never")
    except zephal.Disconnected:
        dut.reopen()
    dut.login("root", "secret")
    return dut.ask("uname")


def test_reconnect_after_a_reboot():
    with board("tcp") as device:
        with zephal.Console(device.url, prompt="# ", timeout=20) as dut:
            dut.login("root", "secret")
            device.reboot(0.05)
            assert reconnect(dut) == "Linux\n"


def answer_of(url, command):
    with zephal.Console(url, prompt="# ", timeout=20) as dut:
        dut.login("root", "secret")
        return dut.ask(command)


def ask_all(urls, command):
    with ThreadPoolExecutor(len(urls)) as pool:
        return list(pool.map(answer_of, urls, [command] * len(urls)))


def test_eight_devices_at_once():
    with contextlib.ExitStack() as rack:
        urls = [rack.enter_context(board()).url for _ in range(8)]
        assert ask_all(urls, "uname") == ["Linux\n"] * 8


@pytest.mark.parametrize("task", [log_in, volts, record_for, reconnect, answer_of, ask_all])
def test_a_task_takes_ten_lines(task):
    assert len(inspect.getsource(task).splitlines()) <= 10
