import contextlib
import os
import pathlib
import re
import subprocess
import sys
import termios
import tty

import pexpect
import pytest
import zephal
from labgrid import Environment
from labgrid.binding import StateError
from labgrid.driver import ExecutionError
from labgrid.protocol import CommandProtocol, ConsoleProtocol
from serial_devices import PATIENCE, PROMPT, SerialShell, Ser2net, wait_until

ALL_BYTES = bytes(range(256))


def serial_port(path):
    return f"RawSerialPort: {{port: {path}}}"


def network_port(port, protocol, **options):
    more = "".join(f", {name}: {value}" for name, value in options.items())
    return f"NetworkSerialPort: {{host: 127.0.0.1, port: {port}, protocol: {protocol}{more}}}"


@contextlib.contextmanager
def environment(folder, resource, *drivers):
    """A labgrid environment of one target, from a file."""
    lines = [
        "imports: [zephal.labgrid]",
        "targets:",
        "  main:",
        "    resources:",
        f"      {resource}",
        "    drivers:",
        *(f"      {driver}" for driver in drivers),
    ]
    config = folder / "environment.yaml"
    config.write_text("\n".join(lines) + "\n")
    labgrid = Environment(str(config))
    try:
        yield labgrid.get_target()
    finally:
        labgrid.cleanup()


def zephal_driver(**options):
    more = "".join(f", {name}: {value}" for name, value in options.items())
    return f"ZephalDriver: {{timeout: {PATIENCE}{more}}}"


SHELL_DRIVER = f"ShellDriver: {{prompt: '{PROMPT}', login_prompt: 'login: ', username: root}}"


@pytest.fixture(params=["serial", "raw", "rfc2217"])
def shell_resource(request, tmp_path):
    """A shell, in the three ways in which a lab has one."""
    with contextlib.ExitStack() as opened:
        path = opened.enter_context(SerialShell(tmp_path)).path
        if request.param == "serial":
            yield serial_port(path)
        else:
            port = opened.enter_context(Ser2net(tmp_path, path, request.param)).port
            yield network_port(port, request.param)


@pytest.fixture
def target(tmp_path, shell_resource):
    driver = zephal_driver(prompt=f"'{PROMPT}'", log="dut.log")
    with environment(tmp_path, shell_resource, driver) as target:
        yield target


@pytest.fixture
def shell(target):
    return target.get_driver(CommandProtocol)


def test_runs_commands(shell):
    assert shell.run("echo one; echo two >&2; (exit 3)") == (["one", "two"], [], 3)
    assert shell.run("true") == ([], [], 0)
    assert shell.run_check("printf 'a\\n\\nb'") == ["a", "", "b"]
    with pytest.raises(ExecutionError) as caught:
        shell.run_check("echo no; false")
    assert caught.value.stdout == ["no"]


def test_long_output_arrives_whole(shell):
    assert shell.run_check("seq 20000") == [str(number) for number in range(1, 20001)]


def test_decodes_as_asked(shell):
    assert shell.run_check("printf '\\344\\n'", codec="latin-1") == ["ä"]
    with pytest.raises(UnicodeDecodeError):
        shell.run("printf '\\344\\n'")


def test_waits_and_polls(shell, tmp_path):
    flag = tmp_path / "flag"
    count = f"echo x >> {flag}; wc -l < {flag}"
    shell.wait_for(count, "3", timeout=PATIENCE, sleepduration=0)
    assert shell.poll_until_success(f"{count}; test $(wc -l < {flag}) = 5", sleepduration=0)
    assert not shell.poll_until_success("false", tries=2, sleepduration=0)


def test_a_late_answer_is_not_the_next_ones(shell):
    with pytest.raises(pexpect.TIMEOUT) as caught:
        shell.run("sleep 1; echo late", timeout=0.2)
    assert isinstance(caught.value.__cause__, zephal.Timeout)
    assert shell.run_check("echo next") == ["next"]


def test_is_a_console_for_other_drivers(target):
    console = target.get_driver(ConsoleProtocol)
    console.sendline("echo $((6 * 7)).")
    index, before, match, after = console.expect(["never", r"(\d+)\.\r\n", pexpect.TIMEOUT])
    assert (index, match.group(1), after) == (1, b"42", b"42.\r\n")
    assert b"echo" in before
    console.sendline("sh -c 'echo go; exec cat'")
    console.expect("go\r\n")
    console.sendcontrol("c")
    assert console.expect(PROMPT)[0] == 0
    assert console.expect([pexpect.TIMEOUT], timeout=0.05)[2] is pexpect.TIMEOUT
    with pytest.raises(pexpect.TIMEOUT):
        console.read(timeout=0.01)


def test_commands_drop_what_expect_has_left(shell):
    shell.sendline("echo one; echo 'two'")
    shell.expect("one\r\n")
    shell.expect(PROMPT)
    assert shell.run_check("echo three") == ["three"]
    with pytest.raises(pexpect.TIMEOUT):
        shell.expect("two", timeout=0.05)


def test_opens_and_closes_with_its_activation(target, tmp_path):
    driver = target.get_driver("ZephalDriver", activate=False)
    assert driver.get_status() == 0
    for _ in range(3):
        target.activate(driver)
        assert driver.get_status() == 1
        assert driver.run_check("echo here") == ["here"]
        assert driver.console.ask("echo text") == "text\n"
        target.deactivate(driver)
        assert driver.get_status() == 0
        with pytest.raises(StateError):
            driver.run("echo")
        with pytest.raises(StateError):
            driver.console
    assert (tmp_path / "dut.log").read_text().count("echo here") >= 3


def test_labgrids_own_shell_driver_works_on_top(tmp_path, shell_resource):
    with environment(tmp_path, shell_resource, zephal_driver(), SHELL_DRIVER) as target:
        shell = target.get_driver(CommandProtocol)
        assert type(shell).__name__ == "ShellDriver"
        assert shell.run("echo one; (exit 3)") == (["one"], [], 3)
        assert shell.run_check("seq 5000") == [str(number) for number in range(1, 5001)]
        target.deactivate(shell)
        target.activate(shell)
        assert shell.run_check("echo again") == ["again"]


def test_shell_driver_on_busybox(tmp_path):
    with SerialShell(tmp_path, "busybox sh -i") as device:
        resource = serial_port(device.path)
        with environment(tmp_path, resource, zephal_driver(), SHELL_DRIVER) as target:
            assert target.get_driver("ShellDriver").run("echo one; false") == (["one"], [], 1)


def test_labgrids_u_boot_driver_works_on_top(tmp_path):
    (tmp_path / "boot").write_text(
        "printf 'U-Boot 2024.01\\n\\nHit any key to stop autoboot:  3 '; read key\n"
    )
    boot_driver = f"UBootDriver: {{prompt: '{PROMPT}'}}"
    with SerialShell(tmp_path) as device:
        resource = serial_port(device.path)
        with environment(tmp_path, resource, zephal_driver(), boot_driver) as target:
            target.get_driver(ConsoleProtocol).sendline(f"sh {tmp_path}/boot")
            boot = target.get_driver("UBootDriver")
            assert boot.run("echo one; (exit 3)") == (["one"], [], 3)
            assert boot.run_check("echo two") == ["two"]


def test_commands_need_a_prompt(tmp_path):
    with zephal.Simulator("pty") as device:
        resource = serial_port(device.url.removeprefix("uart://"))
        with environment(tmp_path, resource, zephal_driver()) as target:
            with pytest.raises(ValueError, match="needs the attribute prompt"):
                target.get_driver(CommandProtocol).run("echo")


def test_logs_in_and_keeps_the_password(tmp_path):
    options = {"prompt": "'# '", "username": "root", "password": "secret", "log": "dut.log"}
    with zephal.Simulator("pty", login=("root", "secret"), prompt="# ", echoes=True) as device:
        resource = serial_port(device.url.removeprefix("uart://"))
        with environment(tmp_path, resource, zephal_driver(**options)) as target:
            driver = target.get_driver("ZephalDriver")
            assert "secret" not in repr(driver)
            driver.login()
    assert "secret" not in (tmp_path / "dut.log").read_text()


def test_a_refused_login_leaves_it_inactive(tmp_path):
    options = {"prompt": "'# '", "username": "root", "password": "wrong"}
    with zephal.Simulator("pty", login=("root", "secret"), prompt="# ") as device:
        resource = serial_port(device.url.removeprefix("uart://"))
        with environment(tmp_path, resource, zephal_driver(**options)) as target:
            driver = target.get_driver("ZephalDriver", activate=False)
            with pytest.raises(zephal.LoginRefused):
                target.activate(driver)
            assert driver.get_status() == 0
            driver.password = "secret"
            target.activate(driver)
            assert driver.get_status() == 1


@pytest.mark.parametrize("protocol", ["raw", "rfc2217"])
def test_survives_a_device_that_goes_away(tmp_path, protocol):
    with SerialShell(tmp_path) as device, Ser2net(tmp_path, device.path, protocol) as server:
        resource = network_port(server.port, protocol)
        driver = zephal_driver(prompt=f"'{PROMPT}'")
        with environment(tmp_path, resource, driver) as target:
            driver = target.get_driver("ZephalDriver")
            assert driver.run_check("echo before") == ["before"]
            server.close()
            with pytest.raises(zephal.Disconnected):
                driver.expect("never", timeout=PATIENCE)
            with pytest.raises(zephal.Disconnected):
                driver.run("echo lost")
            assert driver.get_status() == 0
            with Ser2net(tmp_path, device.path, protocol, server.port):
                driver.reopen(PATIENCE)
                assert driver.run_check("echo after") == ["after"]


def test_tells_that_the_serial_port_is_gone(tmp_path):
    with zephal.Simulator("pty") as device:
        resource = serial_port(device.url.removeprefix("uart://"))
        with environment(tmp_path, resource, zephal_driver()) as target:
            driver = target.get_driver(ConsoleProtocol)
            device.close()
            with pytest.raises(zephal.Disconnected):
                driver.expect("never", timeout=PATIENCE)


def test_an_unknown_protocol_is_refused(tmp_path):
    with environment(tmp_path, network_port(1, "smoke"), zephal_driver()) as target:
        with pytest.raises(ValueError, match="raw or rfc2217, not smoke"):
            target.get_driver("ZephalDriver")


@pytest.mark.parametrize("protocol", ["raw", "rfc2217"])
def test_carries_every_byte_both_ways(tmp_path, protocol):
    device, line = os.openpty()
    tty.setraw(line)
    with Ser2net(tmp_path, os.ttyname(line), protocol) as server:
        resource = network_port(server.port, protocol)
        driver = zephal_driver(keep_escapes="true", txdelay=0.0)
        with environment(tmp_path, resource, driver) as target:
            console = target.get_driver(ConsoleProtocol)
            assert console.write(ALL_BYTES) == len(ALL_BYTES)
            received = b""
            while len(received) < len(ALL_BYTES):
                received += os.read(device, len(ALL_BYTES))
            assert received == ALL_BYTES
            os.write(device, ALL_BYTES)
            assert console.read(size=len(ALL_BYTES), timeout=PATIENCE) == ALL_BYTES
    os.close(device)
    os.close(line)


def test_sets_the_speed_of_a_remote_port(tmp_path):
    device, line = os.openpty()
    with Ser2net(tmp_path, os.ttyname(line), "rfc2217") as server:
        resource = network_port(server.port, "rfc2217", speed=57600)
        with environment(tmp_path, resource, zephal_driver()) as target:
            target.get_driver("ZephalDriver")
            wait_until(lambda: termios.tcgetattr(line)[5] == termios.B57600)
    os.close(device)
    os.close(line)


def test_the_example_works(tmp_path):
    readme = pathlib.Path(__file__).parent.parent / "README.md"
    (example,) = re.findall(r"```yaml\n(.*?)```", readme.read_text(), re.DOTALL)
    with SerialShell(tmp_path) as device, Ser2net(tmp_path, device.path) as server:
        example = example.replace("lab1", "127.0.0.1").replace("4001", str(server.port))
        example = example.replace(r"root@\S+# $", PROMPT)
        assert str(server.port) in example and PROMPT in example
        config = tmp_path / "lab.yaml"
        config.write_text(example)
        labgrid = Environment(str(config))
        try:
            shell = labgrid.get_target().get_driver("CommandProtocol")
            assert shell.run_check("echo works") == ["works"]
        finally:
            labgrid.cleanup()
        assert "works" in (tmp_path / "dut.log").read_text()


def test_the_package_does_not_need_labgrid():
    without = "import sys; sys.modules['labgrid'] = None; import zephal, zephal.pytest_plugin"
    subprocess.run([sys.executable, "-c", without], check=True)
