import gc
import sys

import pytest
import zephal
from zephal import DeviceAnswer, DeviceLogin

PATIENCE = 20.0


def console(device, **options):
    return zephal.Console(device.url, prompt="=> ", timeout=PATIENCE, **options)


def test_answers_as_it_is_told():
    responses = {
        "slow": DeviceAnswer.after(0.05, "late\n"),
        "root": DeviceAnswer("now root\n", prompt="# "),
        "mute": DeviceAnswer.silence(),
        "half": DeviceAnswer.without_prompt("half"),
        "bye": DeviceAnswer.hang_up("bye\n"),
    }
    with zephal.Simulator(responses=responses) as device, console(device) as dut:
        assert dut.ask("slow") == "late\n"
        dut.send("root")
        assert dut.expect("# ").before == "now root\n"
        dut.send("half")
        assert dut.expect("half").before == ""
        dut.send("mute")
        assert device.wait_for_commands(4)
        dut.send("bye")
        assert dut.expect("bye\n").before == ""
        with pytest.raises(zephal.Disconnected):
            dut.expect("=> ")
        assert device.commands == [b"slow", b"root", b"half", b"mute", b"bye"]
        assert device.unknown_commands == []


def test_comes_back_after_a_command_that_reboots_it():
    responses = {"reboot": DeviceAnswer.reboot("Going down\n", 0.01)}
    with zephal.Simulator("pty", boot_text="U-Boot\n", responses=responses) as device:
        with console(device) as dut:
            dut.expect("=> ")
            assert "U-Boot" in dut.reboot("reboot")


def test_refuses_an_answer_that_it_does_not_know():
    with pytest.raises(ValueError, match="hang_up"):
        zephal.Simulator(responses={"x": DeviceAnswer("text", "explode")})


def test_asks_a_function():
    def respond(command):
        return DeviceAnswer.without_prompt("odd=> ") if command == b"odd" else command[::-1] + b"\n"

    with zephal.Simulator(respond=respond) as device, console(device) as dut:
        assert dut.ask("abc") == "cba\n"
        assert dut.ask("odd") == "odd"


def test_survives_a_function_that_fails(monkeypatch):
    seen = []
    monkeypatch.setattr(sys, "unraisablehook", lambda report: seen.append(report.exc_type))

    def respond(command):
        if command == b"raise":
            raise KeyError(command)
        return object()

    with zephal.Simulator(respond=respond) as device, console(device) as dut:
        assert dut.ask("raise") == ""
        assert dut.ask("wrong type") == ""
    assert seen[0] is KeyError
    assert len(seen) == 2


def test_is_collected_while_its_function_may_run():
    device = zephal.Simulator(respond=lambda command: b"x" * 100)
    dut = console(device)
    dut.send("one\ntwo\nthree")
    del device
    gc.collect()
    dut.close()


def test_asks_for_a_login_of_its_own_kind():
    login = DeviceLogin("admin", "secret", "Who? ", "Really? ", "\nNo.\n", "Welcome\n", "leave")
    dialogue = zephal.LoginDialogue("Who? ", "Really? ", "No.")
    with zephal.Simulator(login=login) as device, console(device) as dut:
        with pytest.raises(zephal.LoginRefused):
            dut.login("admin", "wrong", dialogue=dialogue)
        dut.login("admin", "secret", dialogue=dialogue)
        dut.send("leave")
        assert dut.expect("Who? ").index == 0


@pytest.mark.parametrize("kind", ["pty", "unix"])
def test_is_where_it_is_told(tmp_path, kind):
    place = tmp_path / "device"
    with zephal.Simulator(kind, path=str(place)) as device:
        assert device.url.endswith(str(place))
        assert place.exists()
    assert not place.exists()


def test_says_why_it_cannot_be_there(tmp_path):
    with pytest.raises(RuntimeError, match="No such file or directory"):
        zephal.Simulator(path=str(tmp_path / "missing" / "device"))


def test_goes_away_and_comes_back():
    with zephal.Simulator("tcp") as device, console(device) as dut:
        assert dut.ask("one") == ""
        assert device.connections == 1
        device.power_off()
        assert not device.is_on
        with pytest.raises(zephal.Disconnected):
            dut.expect("never")
        device.power_on()
        assert device.is_on and device.wait_until_on(PATIENCE)
        dut.reopen()
        assert dut.ask("two") == ""
        assert device.wait_for_connections(2)
        device.stop_listening()
        device.reset_connection()
        with pytest.raises(zephal.Disconnected):
            dut.expect("never")
        with pytest.raises(zephal.OpenError):
            dut.reopen(timeout=0.1)


def test_knows_what_it_received():
    with zephal.Simulator(terminator="\r") as device, console(device, line_end="\r") as dut:
        dut.send("version")
        assert device.wait_for_received("version\r") and device.wait_until_all_is_sent()
        assert device.received == b"version\r"
        assert device.unknown_commands == [b"version"]
        device.forget_received()
        assert device.received == b"" and device.commands == []


def test_splits_answers_and_hangs_up_within_one():
    options = {"responses": {"abc": "0123456789\n"}, "pause": 0.001}
    with zephal.Simulator(splits_after=[1, 5], splits_prompt_after=1, **options) as device:
        with console(device) as dut:
            assert dut.ask("abc") == "0123456789\n"
    with zephal.Simulator(hangs_up_after=4, **options) as device, console(device) as dut:
        with pytest.raises(zephal.Disconnected) as raised:
            dut.ask("abc")
        assert raised.value.received == "0123"


def test_plays_a_conversation(tmp_path):
    log = tmp_path / "raw.log"
    with zephal.Simulator(responses={"version": "1.0\n", "volts": "3.25 V\n"}) as device:
        with console(device, raw_log=str(log)) as dut:
            dut.ask("version")
            dut.ask("volts")
    with zephal.Simulator.replay(log, prompt="=> ") as device, console(device) as dut:
        assert dut.ask("volts") == "3.25 V\n"
        assert dut.ask("version") == "1.0\n"


def test_closed_it_says_so():
    device = zephal.Simulator()
    device.close()
    device.close()
    with pytest.raises(ValueError, match="closed"):
        device.commands
