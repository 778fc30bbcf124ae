"""The asyncio twins."""

import asyncio
import inspect
import multiprocessing

import pytest
import zephal

PATIENCE = 20.0
WAITING = ["expect", "ask", "run", "login", "send", "send_secret", "write", "send_control"]
WAITING += ["interrupt", "record", "discard", "reopen", "reboot"]


@pytest.fixture
def device():
    answers = {"version": "1.0\n", "true": "", "echo $?": "0\n"}
    with zephal.Simulator(responses=answers) as simulator:
        yield simulator


def console(device, **options):
    return zephal.Console(device.url, prompt="=> ", timeout=options.pop("timeout", PATIENCE), **options)


@pytest.fixture
def silent():
    with zephal.Simulator(is_silent=True) as simulator:
        yield simulator


async def cancelled(task):
    task.cancel()
    with pytest.raises(asyncio.CancelledError):
        await task
    return True


async def until(condition):
    async with asyncio.timeout(PATIENCE):
        while not condition():
            await asyncio.sleep(0.001)


@pytest.mark.parametrize("name", WAITING)
def test_every_operation_that_waits_has_a_twin(name):
    twin = getattr(zephal.Console, name + "_async")
    assert inspect.iscoroutinefunction(twin)
    assert twin.__doc__

    def parameters(function):
        return [(one.name, one.kind) for one in inspect.signature(function).parameters.values()]

    assert parameters(twin) == parameters(getattr(zephal.Console, name))


def test_the_twins_do_what_the_operations_do(device):
    async def talk():
        async with await zephal.Console.open_async(device.url, prompt="=> ", timeout=PATIENCE) as dut:
            assert await dut.ask_async("version") == "1.0\n"
            assert (await dut.ask_async("version", zephal.regex(r"[\d.]+"))).number(0) == 1.0
            assert await dut.run_async("true") == ("", 0)
            await dut.send_async("version")
            assert (await dut.expect_async("=> ")).before == "1.0\n"
            await dut.send_secret_async("version")
            await dut.expect_async("=> ")
            await dut.write_async(b"ver")
            await dut.send_control_async("escape")
            await dut.interrupt_async()
            await dut.write_async("\n")
            await dut.expect_async("=> ")
            device.send("x\ny\n")
            await dut.expect_async("x\n")
            assert [line.text for line in await dut.record_async(0.01)] in (["y"], [])
            await dut.discard_async()
            await dut.reopen_async()
            await dut.login_async("root", "secret")
            assert await dut.reboot_async("reset") == ""
        assert not dut.is_open
        with pytest.raises(zephal.Disconnected):
            await dut.ask_async("version")

    asyncio.run(talk())
    assert device.commands[6] == b"ver\x1b\x03"


CALLS = {
    "expect": ("never",),
    "ask": ("wait",),
    "run": ("wait",),
    "login": ("root", "secret"),
    "write": (b"x" * (64 << 20),),
    "record": (3600,),
    "reboot": ("wait",),
}


@pytest.mark.parametrize("name", CALLS)
def test_cancelling_the_task_ends_the_operation(silent, name):
    async def begin_and_cancel():
        with console(silent, timeout=3600) as dut:
            task = asyncio.create_task(getattr(dut, name + "_async")(*CALLS[name]))
            await asyncio.sleep(0.05)
            assert await cancelled(task)
            assert dut.is_open

    asyncio.run(begin_and_cancel())


def test_a_cancelled_write_to_a_deaf_peer_ends(tmp_path):
    import socket

    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(tmp_path / "deaf"))
    listener.listen(1)

    async def write():
        with zephal.Console(f"unix://{tmp_path}/deaf", timeout=3600) as dut:
            task = asyncio.create_task(dut.write_async(b"x" * (8 << 20)))
            await asyncio.sleep(0.05)
            assert await cancelled(task)

    with listener:
        asyncio.run(write())


def test_a_flood_does_not_keep_a_task_from_being_cancelled():
    async def drown(url):
        with zephal.Console(url, timeout=3600) as dut:
            task = asyncio.create_task(dut.expect_async("never"))
            await asyncio.sleep(0.05)
            assert await cancelled(task)

    with zephal.Simulator(floods=True) as device:
        asyncio.run(drown(device.url))


def test_opening_can_be_cancelled(silent):
    async def reopen():
        with console(silent, timeout=3600) as dut:
            silent.close()
            task = asyncio.create_task(dut.reopen_async())
            await asyncio.sleep(0.05)
            assert await cancelled(task)

    asyncio.run(reopen())


def test_the_answer_of_a_cancelled_ask_answers_no_other():
    async def talk(device):
        with console(device) as dut:
            task = asyncio.create_task(dut.ask_async("one"))
            await until(lambda: device.commands == [b"one"])
            assert await cancelled(task)
            return await dut.ask_async("two")

    with zephal.Simulator(responses={"one": "1\n", "two": "2\n"}, delay=0.2) as device:
        assert asyncio.run(talk(device)) == "2\n"


def test_what_arrived_stays_unread_after_a_cancel(silent):
    async def talk():
        with console(silent) as dut:
            task = asyncio.create_task(dut.expect_async("never"))
            silent.send("boot")
            await asyncio.sleep(0.05)
            assert await cancelled(task)
            silent.send("ing")
            return (await dut.expect_async("ing")).before

    assert asyncio.run(talk()) == "boot"


def test_tasks_on_one_console_take_turns(device):
    async def talk():
        with console(device) as dut:
            return await asyncio.gather(*(dut.ask_async("version") for _ in range(50)))

    assert asyncio.run(talk()) == ["1.0\n"] * 50


def test_a_task_that_waits_for_its_turn_can_be_cancelled_alone(silent):
    async def talk():
        with console(silent) as dut:
            first = asyncio.create_task(dut.expect_async("ready"))
            second = asyncio.create_task(dut.expect_async("never"))
            await asyncio.sleep(0.05)
            assert await cancelled(second)
            assert not first.done()
            silent.send("ready")
            assert (await first).text == "ready"

    asyncio.run(talk())


def test_waiting_for_a_turn_counts_towards_the_time_limit(silent):
    async def talk():
        with console(silent, timeout=3600) as dut:
            first = asyncio.create_task(dut.ask_async("wait"))
            await until(lambda: silent.commands)
            with pytest.raises(zephal.Timeout, match="another operation to end"):
                await dut.ask_async("version", timeout=0.05)
            assert await cancelled(first)

    asyncio.run(talk())


def test_more_consoles_wait_at_once_than_there_are_executor_threads(silent):
    async def wait_on_all():
        consoles = [await zephal.Console.open_async(silent_one.url) for silent_one in devices]
        tasks = [asyncio.create_task(dut.expect_async("go", timeout=3600)) for dut in consoles]
        for one in devices:
            one.send("go")
        hits = await asyncio.gather(*tasks)
        waiting = [asyncio.create_task(dut.expect_async("never", timeout=3600)) for dut in consoles]
        await asyncio.sleep(0.05)
        assert await asyncio.to_thread(lambda: "the loop's executor is free") != ""
        for task in waiting:
            assert await cancelled(task)
        for dut in consoles:
            dut.close()
        return [hit.text for hit in hits]

    devices = [zephal.Simulator(is_silent=True) for _ in range(20)]
    try:
        assert asyncio.run(wait_on_all()) == ["go"] * 20
    finally:
        for one in devices:
            one.close()


def test_the_loop_goes_on_while_a_twin_waits(silent):
    async def talk():
        with console(silent) as dut:
            task = asyncio.create_task(dut.expect_async("ready"))
            for _ in range(100):
                await asyncio.sleep(0)
            assert not task.done()
            silent.send("ready")
            return (await task).text

    assert asyncio.run(talk()) == "ready"


def test_a_task_that_is_cancelled_twice_ends_after_its_operation(silent):
    async def talk():
        with console(silent, timeout=3600) as dut:
            task = asyncio.create_task(dut.expect_async("never"))
            await asyncio.sleep(0.05)
            task.cancel()
            await asyncio.sleep(0)
            assert await cancelled(task)
            with pytest.raises(zephal.Timeout, match='"never"'):  # nothing else has the turn
                await dut.expect_async("never", timeout=0)

    asyncio.run(talk())


def test_a_twin_ends_with_wait_for(silent):
    async def talk():
        with console(silent, timeout=3600) as dut:
            with pytest.raises(TimeoutError):
                await asyncio.wait_for(dut.expect_async("never"), 0.05)

    asyncio.run(talk())


def _ask_in_child(url, answers):
    async def ask():
        async with await zephal.Console.open_async(url, prompt="=> ", timeout=PATIENCE) as dut:
            return await dut.ask_async("version")

    answers.put(asyncio.run(ask()))


def test_the_twins_work_in_a_forked_process(device):
    async def ask():
        with console(device) as dut:
            return await dut.ask_async("version")

    assert asyncio.run(ask()) == "1.0\n"
    context = multiprocessing.get_context("fork")
    answers = context.SimpleQueue()
    child = context.Process(target=_ask_in_child, args=(device.url, answers))
    child.start()
    child.join(PATIENCE)
    assert child.exitcode == 0
    assert answers.get() == "1.0\n"
