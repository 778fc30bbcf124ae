import pytest
import zephal


# What the station does, and what is to be tested.
def temperature_of(url, timeout=10):
    with zephal.Console(url, prompt="=> ", timeout=timeout) as dut:
        return dut.ask("temperature", zephal.regex("([-0-9.]+) C")).number()


def test_reads_a_temperature():
    with zephal.Simulator("pty", responses={"temperature": "T1: 21.5 C\n"}) as device:
        assert temperature_of(device.url) == 21.5


def test_notices_a_dead_device():
    with zephal.Simulator("tcp", is_silent=True) as device:
        with pytest.raises(zephal.Timeout):
            temperature_of(device.url, timeout=0.1)
