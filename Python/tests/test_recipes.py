"""Runs the cookbook's programs in Python, and compares what they print with what the pages show."""

import os
import pathlib
import re
import subprocess
import sys

import pytest
import zephal

RECIPES = pathlib.Path(__file__).parents[2] / "Documentation" / "Recipes" / "console"
ENVIRONMENT = {**os.environ, "PW": "secret"}

COUNTDOWN = "U-Boot 2024.01\nHit any key to stop autoboot:  3 "
LINUX = dict(login=("root", "secret"), prompt="# ", echoes=True, translates_line_ends=True)


def without_times(text):
    """Leaves out what differs from run to run: a log's times and process, and seconds."""
    moment = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}|\[\d+\]| +\d+\.\d{3} "
    return re.sub(moment, "<varies>", text)


def shown(recipe):
    """The output on the page, without the commands in front of it."""
    lines = (RECIPES / f"{recipe}.out").read_text().splitlines(keepends=True)
    return without_times("".join(line for line in lines if not line.startswith("$ ")))


def start(recipe, device, *words):
    command = [sys.executable, "-X", "dev", RECIPES / f"{recipe}.py", device.url, *words]
    return subprocess.Popen(
        command, env=ENVIRONMENT, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
    )


def run(recipe, device, *words):
    """The exit status of a recipe, and what it prints, with the device's URL as on the pages."""
    with start(recipe, device, *words) as program:
        output = program.communicate(timeout=100)[0]
    return program.returncode, like_the_page(output, device)


def like_the_page(output, device):
    return without_times(output.replace(device.url, "uart:///dev/ttyUSB0"))


@pytest.fixture(autouse=True)
def folder(tmp_path, monkeypatch):
    """Where the recipes leave their logs."""
    monkeypatch.chdir(tmp_path)


@pytest.mark.parametrize("kind", ["pty", "tcp", "unix"])
def test_the_first_example_logs_in_and_asks(kind):
    answers = {"uname -sr": "Linux 6.6.7\n", "adc 3": "adc 3: 3.25 V\n"}
    with zephal.Simulator(kind, boot_text="Loading kernel\n", responses=answers, **LINUX) as device:
        assert run("first", device) == (0, shown("first"))


def test_takes_a_value_out_of_the_answer():
    with zephal.Simulator(responses={"temperature": "T1: 21.5 C\n"}, echoes=True) as device:
        assert run("value", device) == (0, shown("value"))


def test_a_login_survives_a_wrong_password():
    with zephal.Simulator("pty", responses={"uname": "Linux\n"}, **LINUX) as device:
        assert run("login", device, "root", "guess", "secret") == (0, shown("login"))


def test_a_command_of_a_shell_has_a_status():
    answers = {"systemctl is-active app": "inactive\n", "echo $?": "3\n"}
    with zephal.Simulator(prompt="# ", responses=answers, echoes=True) as device:
        assert run("run", device) == (3, shown("run"))


def test_several_devices_answer_at_once():
    first = zephal.Simulator("tcp", responses={"version": "board 1.0\n"})
    second = zephal.Simulator("unix", responses={"version": "board 2.0\n"})
    with first, second:
        assert run("several", first, second.url) == (0, shown("several"))


def test_a_recording_has_the_time_of_each_line():
    with zephal.Simulator(boot_text="Loading kernel\nStarting app\n", prompt="") as device:
        assert run("record", device, "3") == (0, shown("record"))


@pytest.mark.parametrize("kind", ["pty", "tcp", "unix"])
def test_finds_a_device_again_that_reboots(kind):
    boot = "U-Boot 2024.01\nDRAM: 512 MiB\n"
    with zephal.Simulator(kind, boot_text=boot, is_silent=True) as device:
        with start("reboot", device) as program:
            assert device.wait_for_commands(1)
            device.reboot(0.3)
            output = program.communicate(timeout=100)[0]
        assert like_the_page(output, device) == shown("reboot")


def test_waits_for_a_late_answer():
    answers = {"selftest": "RAM is fine\n", "version": "board 1.0\n=> "}
    with zephal.Simulator(prompt="", responses=answers) as device:
        with start("timeout", device) as program:
            output = program.stdout.readline()
            device.send("flash is fine\n=> ")
            output += program.communicate(timeout=100)[0]
        assert like_the_page(output, device) == shown("timeout")


def test_a_password_is_not_in_the_log():
    answers = {"passwd": "New password: ", "tell-nobody": "# "}
    with zephal.Simulator("pty", prompt="", responses=answers, echoes=True) as device:
        assert run("passwords", device, "tell-nobody") == (0, "")
        log = pathlib.Path("dut.log").read_text() + "\n"
        assert without_times(log) == shown("passwords")
        assert device.commands == [b"passwd", b"tell-nobody"]


def test_stops_a_boot_loader():
    answers = {"reset": COUNTDOWN, "": "=> ", "printenv bootdelay": "bootdelay=3\n=> "}
    with zephal.Simulator("pty", prompt="", responses=answers, echoes=True) as device:
        assert run("autoboot", device) == (0, shown("autoboot"))


def test_a_station_is_tested_without_hardware():
    command = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider"]
    done = subprocess.run(
        [*command, RECIPES / "without-hardware.py"], capture_output=True, text=True, timeout=100
    )
    assert "2 passed" in done.stdout, done.stdout + done.stderr
