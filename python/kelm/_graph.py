"""Graphs and inferences."""

import asyncio
import math
from ctypes import addressof, byref, c_char, c_int, string_at
from typing import (
    TYPE_CHECKING,
    Any,
    Coroutine,
    List,
    Optional,
    Sized,
    Tuple,
    TypeVar,
    Union,
    overload,
)

from . import _completions, _library, _records, _structs
from ._completions import Callback, Started
from ._errors import busy, closed, expired, invalid
from ._records import AuxBlocks, AuxFlags, InferResult
from ._status import record_of
from ._tensors import Pool, Slot, bytes_of

if TYPE_CHECKING:
    from ._client import Client

Seconds = Optional[float]
Output = TypeVar("Output", bound=Sized)  # any buffer; there is no type for that before 3.12

# What infer() and infer_async() take from the pool of their own.
_OWN_SLOTS = 1024
_OWN_SLOTS_OF_A_LOOP = 256
_DEFAULT_DEADLINE = 10.0


class Graph:
    """A loaded graph. From Client.load_graph(); a context manager.

    Threads: any may call infer(), submit() and cancel() at the same time.
    """

    def __init__(self, client: "Client", handle: _library.GraphHandle) -> None:
        self._client = client
        self._handle: Optional[_library.GraphHandle] = handle
        _library.holders.add(self)
        info = self.info
        self.input_bytes = info.input_bytes
        self.output_bytes = info.output_bytes
        self._sizes = (info.input_bytes, info.output_bytes)
        self._own_pool = self.pool(_OWN_SLOTS)
        self._spare: List[Slot] = []
        self._turns: Tuple[Any, Any] = (None, None)  # a loop, and its semaphore for own slots

    @property
    def info(self) -> _records.GraphInfo:
        """Sizes, window and the service's number, which is another one after a reconnect."""
        return record_of(_records.GraphInfo, self._read_info())

    def pool(self, max_slots: int = 0, aux: int = 0) -> Pool:
        """A pool of slots for this graph; `aux` are the AuxFlags that there is to be room for."""
        info = self.info
        blocks = (
            (AuxFlags.TIME_TAKEN, info.time_taken_bytes),
            (AuxFlags.THERMAL, info.thermal_bytes),
            (AuxFlags.DEBUG, info.debug_bytes),
        )
        room = sum(count for flag, count in blocks if aux & flag)
        return Pool(info.input_bytes, info.output_bytes, room, max_slots)

    @overload
    def infer(
        self, data: Slot, *, deadline: Seconds = None, priority: int = 0, aux: int = 0
    ) -> InferResult: ...

    @overload
    def infer(
        self, data: Sized, output: None = None, *, deadline: Seconds = None, priority: int = 0
    ) -> bytes: ...

    @overload
    def infer(
        self, data: Sized, output: Output, *, deadline: Seconds = None, priority: int = 0
    ) -> Output: ...

    def infer(
        self,
        data: Any,
        output: Any = None,
        *,
        deadline: Seconds = None,
        priority: int = 0,
        aux: int = 0,
    ) -> Any:
        """Runs an inference and waits for its end. `deadline` in seconds, None: 10.

        A Slot is used as it is, and the InferResult returned. Any other buffer is copied: the
        output is returned as bytes, or copied into `output`, which is returned then.
        """
        if isinstance(data, Slot):
            _refuse_output(output)
            return self._infer_slot(data, deadline, priority, aux)
        source, target = self._buffers(data, output)
        slot = self._own_slot()
        slot.input[:] = source
        self._infer_slot(slot, deadline, priority, aux)  # failed: a late result may still come
        return self._finish(slot, output, target)

    @overload
    def infer_async(
        self, data: Slot, *, deadline: Seconds = None, priority: int = 0, aux: int = 0
    ) -> Coroutine[Any, Any, InferResult]: ...

    @overload
    def infer_async(
        self, data: Sized, output: None = None, *, deadline: Seconds = None, priority: int = 0
    ) -> Coroutine[Any, Any, bytes]: ...

    @overload
    def infer_async(
        self, data: Sized, output: Output, *, deadline: Seconds = None, priority: int = 0
    ) -> Coroutine[Any, Any, Output]: ...

    def infer_async(
        self,
        data: Any,
        output: Any = None,
        *,
        deadline: Seconds = None,
        priority: int = 0,
        aux: int = 0,
    ) -> Coroutine[Any, Any, Any]:
        """The same, to be awaited in an event loop. A canceled task takes its inference back; a
        Slot is busy until the end of that is told. The first loop of a client is its only one until
        it is closed or has nothing more to wait for."""
        if isinstance(data, Slot):
            _refuse_output(output)
            return self._infer_in_loop(data, deadline, priority, aux)
        return self._copy_in_loop(data, output, deadline, priority, aux)

    def submit(
        self,
        slot: Slot,
        done: Callback,
        *,
        deadline: Seconds = None,
        priority: int = 0,
        aux: int = 0,
    ) -> int:
        """Starts an inference and returns its ticket. `done(slot, result)` is called exactly once,
        in Client.dispatch() or by the client's event loop. An exception: it was not started."""
        if not isinstance(slot, Slot):
            raise TypeError("submit() takes a Slot; acquire one from graph.pool()")
        if not callable(done):
            raise TypeError("`done` is to be a function of the slot and the result")
        self._start(slot, done, deadline, priority, aux)
        return slot._ticket.value

    def cancel(self, ticket: int) -> bool:
        """Takes a task back; it ends with KelmCanceledError. False: it has ended or runs on. May
        wait for the service, 10 s at most."""
        canceled = c_int()
        self._check(
            _library.cancel(
                self._handle, _library.number_of(ticket, "a ticket", 2**64 - 1), byref(canceled)
            )
        )
        return canceled.value != 0

    def decode_aux(self, slot: Slot) -> AuxBlocks:
        """The auxiliary blocks that the slot's last inference asked for."""
        if slot._options is None:
            raise invalid("the slot had no inference yet; run one with `aux`")
        aux = _structs.Aux()
        memory = (c_char * len(slot.aux)).from_buffer(slot.aux)
        info = self._read_info()
        self._check(
            _library.aux_decode(
                byref(info), slot._options[3], addressof(memory), len(memory), byref(aux)
            )
        )
        times = aux.time_taken_ms
        return AuxBlocks(
            tuple(times[: aux.time_taken_count]) if times else None,
            _block(aux.thermal, aux.thermal_bytes),
            _block(aux.debug, aux.debug_bytes),
            None if math.isnan(aux.celsius) else aux.celsius,
        )

    def close(self) -> None:
        """Ends waiting tasks with KelmCanceledError, waits up to 10 s for those that were sent, and
        tells the service. What ended is still told to those who wait."""
        self._spare.clear()
        self._own_pool.close()
        self._handle = None

    def __enter__(self) -> "Graph":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _check(self, code: int) -> None:
        _library.check(code, self._handle, "graph")

    def _read_info(self) -> _structs.GraphInfo:
        info = _structs.GraphInfo()
        self._check(_library.graph_get_info(self._handle, byref(info)))
        return info

    def _infer_slot(
        self, slot: Slot, deadline: Seconds, priority: int, aux: int
    ) -> InferResult:
        memory = slot._prepare(self._sizes, deadline, priority, aux)
        code = _library.infer(self._handle, slot._task_address, slot._result_address)
        del memory  # kept during the call: another thread may release the slot
        self._check(code)
        return _completions.result_of(_completions.unpack_from(slot._result))

    async def _infer_in_loop(
        self, slot: Slot, deadline: Seconds, priority: int, aux: int
    ) -> InferResult:
        loop = asyncio.get_running_loop()
        self._client._bind(loop)
        future: "asyncio.Future[InferResult]" = loop.create_future()
        task = self._start(slot, future, deadline, priority, aux)
        try:
            return await future
        except asyncio.CancelledError:
            # In another thread, since it may wait for the service. Unless the task has ended.
            if _completions.started.get(slot._key) is task:
                try:
                    loop.run_in_executor(None, self._take_back, slot._ticket.value)
                except RuntimeError:
                    pass  # the loop ends; the task comes to its end by itself
            raise
        finally:
            # An exception has this frame, and they have it: a circle that would keep the memory.
            del future, task

    async def _copy_in_loop(
        self, data: Any, output: Any, deadline: Seconds, priority: int, aux: int
    ) -> Any:
        source, target = self._buffers(data, output)
        loop = asyncio.get_running_loop()
        turns = self._turns_of(loop)
        if turns.locked():
            _library.millis_of(deadline)
            end = loop.time() + (_DEFAULT_DEADLINE if deadline is None else deadline)
            await turns.acquire()
            deadline = end - loop.time()
            if deadline <= 0:
                turns.release()
                raise expired("the deadline of the task passed before it was sent; start fewer")
        else:
            await turns.acquire()
        try:
            slot = self._own_slot()
            slot.input[:] = source
            await self._infer_in_loop(slot, deadline, priority, aux)
            return self._finish(slot, output, target)
        finally:
            turns.release()

    def _take_back(self, ticket: int) -> None:
        """Its task tells what became of it."""
        _library.cancel(self._handle, ticket, byref(c_int()))

    def _start(
        self,
        slot: Slot,
        sink: Union["asyncio.Future[InferResult]", Callback],
        deadline: Seconds,
        priority: int,
        aux: int,
    ) -> Started:
        key = slot._key
        task = Started(
            self._client._completions,
            slot,
            slot._prepare(self._sizes, deadline, priority, aux),
            sink,
        )
        if _completions.started.setdefault(key, task) is not task:
            raise busy("the end of the slot's task was not told yet; wait for it or take another")
        code = _library.infer_async(self._handle, slot._task_address, slot._ticket_address)
        if code != 0:
            del _completions.started[key]
            self._check(code)
        return task

    def _own_slot(self) -> Slot:
        try:
            return self._spare.pop()
        except IndexError:
            if self._handle is None:
                raise closed("graph") from None
            return self._own_pool.acquire()

    def _buffers(self, data: Any, output: Any) -> Tuple[memoryview, Optional[memoryview]]:
        source = bytes_of(data, self.input_bytes, "input")
        return source, None if output is None else bytes_of(output, self.output_bytes, "output")

    def _finish(self, slot: Slot, output: Any, target: Optional[memoryview]) -> Any:
        if target is None:
            output = bytes(slot.output)
        else:
            target[:] = slot.output
        if self._handle is not None:
            self._spare.append(slot)
        return output

    def _turns_of(self, loop: asyncio.AbstractEventLoop) -> asyncio.Semaphore:
        if self._turns[0] is not loop:
            self._turns = (loop, asyncio.Semaphore(_OWN_SLOTS_OF_A_LOOP))
        turns: asyncio.Semaphore = self._turns[1]
        return turns


def _refuse_output(output: Any) -> None:
    if output is not None:
        raise invalid("a slot has an output of its own; give a buffer as input or no output")


def _block(address: Optional[int], count: int) -> Optional[bytes]:
    if not address:
        return None
    return string_at(address, count)
