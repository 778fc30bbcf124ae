"""The threads on which the asyncio twins of operations wait."""

from __future__ import annotations

import asyncio
import os
from concurrent.futures import Future, ThreadPoolExecutor
from typing import Any, Callable, Optional, TypeVar

from zephal import _zephal

Result = TypeVar("Result")

# More than anybody has devices. The loop's own executor has a few threads more than the machine has
# processors: a dozen recordings would run one after the other, and hold up everything else in it.
_MOST_THREADS = 4096

_executor: Optional[ThreadPoolExecutor] = None


def _start() -> ThreadPoolExecutor:
    global _executor
    if _executor is None:
        _executor = ThreadPoolExecutor(_MOST_THREADS, thread_name_prefix="zephal")
    return _executor


def _forget() -> None:
    global _executor
    _executor = None


os.register_at_fork(after_in_child=_forget)  # the child has none of the threads


async def asynchronously(operation: Callable[..., Result], *args: Any, **kwargs: Any) -> Result:
    """Runs an operation of a console on a thread, and ends it if the task is cancelled.

    The operation has ended when this does, however often the task is cancelled.
    """
    cancel = _zephal.Cancel()

    def call() -> Result:
        with _zephal.CancelScope(cancel):
            return operation(*args, **kwargs)

    job: Future[Result] = _start().submit(call)
    running = asyncio.wrap_future(job)
    try:
        return await asyncio.shield(running)
    except asyncio.CancelledError:
        cancel.set()
        await _end_of(running)
        raise


async def _end_of(running: asyncio.Future[Any]) -> None:
    while not running.done():
        try:
            await asyncio.wait([running])
        except asyncio.CancelledError:
            pass
    running.exception()  # it was looked at
