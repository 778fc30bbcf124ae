"""A lab of several machines, all of which are this one: coordinator, exporter and tests."""

import contextlib
import pathlib
import subprocess
import sys

import pytest
from serial_devices import PATIENCE, PROMPT, Process, SerialShell, listening_port, wait_until

ROUTER = pathlib.Path(__file__).parent / "wamp_router.py"

ENVIRONMENT = f"""
imports: [zephal.labgrid]
targets:
  main:
    resources:
      RemotePlace: {{name: '1'}}
    drivers:
      ZephalDriver: {{prompt: '{PROMPT}', timeout: {PATIENCE}, log: dut.log}}
"""

TEST = """
def test_board(target):
    shell = target.get_driver("CommandProtocol")
    assert target.get_resource("NetworkSerialPort").protocol == "rfc2217"
    assert shell.run_check("seq 5000") == [str(number) for number in range(1, 5001)]
    assert shell.run("false") == ([], [], 1)
"""


@pytest.fixture
def coordinator(tmp_path):
    """Its URL."""
    with contextlib.ExitStack() as opened:
        router = opened.enter_context(Process(sys.executable, str(ROUTER)))
        port = wait_until(lambda: listening_port(router.pid))
        url = f"ws://127.0.0.1:{port}/ws"
        log = opened.enter_context((tmp_path / "coordinator.log").open("wb+"))
        command = (sys.executable, "-u", "-m", "labgrid.remote.coordinator")
        opened.enter_context(
            Process(*command, cwd=tmp_path, env={"WS": url}, stdout=log, stderr=log)
        )
        wait_until(lambda: b"Coordinator ready" in (tmp_path / "coordinator.log").read_bytes())
        yield url


def run(*module, cwd):
    """A program of labgrid's or pytest, which must succeed."""
    done = subprocess.run([sys.executable, "-m", *module], cwd=cwd, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def test_a_board_of_an_exporter_is_used(coordinator, tmp_path):
    (tmp_path / "environment.yaml").write_text(ENVIRONMENT)
    (tmp_path / "test_board.py").write_text(TEST)
    client = ("labgrid.remote.client", "-x", coordinator, "-p", "1")
    with SerialShell(tmp_path) as board:
        (tmp_path / "exporter.yaml").write_text(f"1: {{RawSerialPort: {{port: {board.path}}}}}\n")
        names = ("--name", "rack", "--hostname", "127.0.0.1")
        exporter = ("labgrid.remote.exporter", "-x", coordinator, *names, "exporter.yaml")
        with Process(sys.executable, "-m", *exporter, cwd=tmp_path):
            wait_until(lambda: "NetworkSerialPort" in run(*client[:3], "resources", cwd=tmp_path))
            run(*client, "acquire", cwd=tmp_path)
            lab = ("--lg-env", "environment.yaml", "--lg-coordinator", coordinator)
            run("pytest", "-p", "no:cacheprovider", *lab, "test_board.py", cwd=tmp_path)
            run(*client, "release", cwd=tmp_path)
    assert "seq 5000" in (tmp_path / "dut.log").read_text()
