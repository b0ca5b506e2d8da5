"""The ends of tasks, on their way from the library to the program."""

import asyncio
import itertools
import logging
import struct
from collections import deque
from ctypes import string_at
from typing import (
    TYPE_CHECKING,
    Any,
    Callable,
    Deque,
    Dict,
    List,
    NamedTuple,
    Optional,
    Tuple,
    Union,
)

from . import _library, _structs
from ._errors import KelmError
from ._records import InferResult

if TYPE_CHECKING:
    from ._tensors import Slot

Callback = Callable[["Slot", InferResult], object]
RESULT_BYTES = struct.calcsize(_structs.RESULT_FORMAT)
_unpack = struct.Struct(_structs.RESULT_FORMAT).unpack
unpack_from = struct.Struct(_structs.RESULT_FORMAT).unpack_from


class Started(NamedTuple):
    """A task that was started, until its end is told."""

    completions: "Completions"
    slot: "Slot"
    handle: _library.SlotHandle  # keeps the memory, also when the program releases the slot
    sink: Union["asyncio.Future[InferResult]", Callback]


# By the `user` of the task, which is the slot's key. The operations are atomic, as the interpreter
# runs one thread at a time.
started: Dict[int, Started] = {}
new_key = itertools.count(1).__next__
_interrupts: List[BaseException] = []


def result_of(fields: Tuple[Any, ...], error: Optional[KelmError] = None) -> InferResult:
    """Faster than the constructor of a frozen dataclass, which sets field by field."""
    result = InferResult.__new__(InferResult)
    _, _, _, ticket, _, task_id, waited, accepted, total = fields
    result.__dict__.update(
        error=error,
        ticket=ticket,
        task_id=task_id,
        waited_ns=waited,
        accepted_ns=accepted,
        total_ns=total,
    )
    return result


def _keep(address: int, key: int) -> None:
    fields = _unpack(string_at(address, RESULT_BYTES))
    text = string_at(fields[2]) if fields[1] != 0 else None
    started[key].completions.ended[key] = (fields, text)


def _on_done(address: int, key: int) -> None:
    try:
        _keep(address, key)
    except BaseException as interrupt:  # that of a signal; it would be lost in the library
        _keep(address, key)
        _interrupts.append(interrupt)


# One for all tasks, and never freed: the library may call it until the process ends.
on_done = _structs.DoneFunction(_on_done)


class Completions:
    """The ends of one client's tasks. The library's callbacks only add to them; the program's code
    runs in deliver(), outside of the library, where it may call anything."""

    def __init__(self) -> None:
        self.ended: Dict[int, Tuple[Tuple[Any, ...], Optional[bytes]]] = {}
        self.connection_changes: Deque[bool] = deque()
        self.on_connection: Optional[Callable[[bool], object]] = None

    def deliver(self, loop: Optional[asyncio.AbstractEventLoop] = None) -> None:
        """`loop` is that of this thread. What is left after an exception comes the next time."""
        ended = self.ended
        while ended:
            key = next(iter(ended))
            fields, text = ended.pop(key)
            task = started.pop(key)
            error = None if text is None else _library.error_of(fields[1], text)
            result = result_of(fields, error)
            if isinstance(task.sink, asyncio.Future):
                _settle_in(loop, task.sink, result)
            else:
                task.sink(task.slot, result)
        while self.connection_changes:
            up = self.connection_changes.popleft()
            if self.on_connection is not None:
                self.on_connection(up)
        if _interrupts:
            raise _interrupts.pop()

    def count(self) -> int:
        """Of what deliver() would tell."""
        return len(self.ended) + len(self.connection_changes)

    def deliver_last(self) -> None:
        """When the connection is closed: nobody is there for what a callback raises."""
        while self.count():
            try:
                self.deliver(asyncio._get_running_loop())
            except Exception:
                logging.getLogger("kelm").exception("a callback failed as its client was closed")

    def has_started(self, loop: asyncio.AbstractEventLoop) -> bool:
        return any(
            task.completions is self
            and isinstance(task.sink, asyncio.Future)
            and task.sink.get_loop() is loop
            for task in list(started.values())
        )


def _settle_in(
    loop: Optional[asyncio.AbstractEventLoop],
    future: "asyncio.Future[InferResult]",
    result: InferResult,
) -> None:
    if future.get_loop() is loop:
        return _settle(future, result)
    try:
        future.get_loop().call_soon_threadsafe(_settle, future, result)
    except RuntimeError:  # the loop was closed, and nobody waits any more
        pass


def _settle(future: "asyncio.Future[InferResult]", result: InferResult) -> None:
    if future.done():  # canceled
        return
    if result.error is not None:
        future.set_exception(result.error)
    else:
        future.set_result(result)
