"""Memory for tensors that the service can reach."""

import ctypes
from ctypes import addressof, byref, c_char, c_size_t, c_uint64
from typing import TYPE_CHECKING, Any, Callable, Optional, Sequence, Tuple, Union, final

from . import _completions, _library, _structs
from ._errors import invalid

if TYPE_CHECKING:
    import numpy

Shape = Union[int, Sequence[int]]


class Pool:
    """Slots of one input, output and auxiliary size (0: none), made when first needed, used again.

    Threads: any. Slots that are in use outlive it.
    """

    def __init__(
        self, input_bytes: int, output_bytes: int, aux_bytes: int = 0, max_slots: int = 0
    ) -> None:
        highest = 2**63 - 1
        self.input_bytes = _library.number_of(input_bytes, "input_bytes", highest)
        self.output_bytes = _library.number_of(output_bytes, "output_bytes", highest)
        self.aux_bytes = _library.number_of(aux_bytes, "aux_bytes", highest)
        slots = _library.number_of(max_slots, "max_slots", highest)
        handle = _library.PoolHandle()
        sizes = (self.input_bytes, self.output_bytes, self.aux_bytes)
        _library.check(_library.pool_create(*sizes, slots, byref(handle)))
        self._handle: Optional[_library.PoolHandle] = handle
        _library.holders.add(self)

    def acquire(self) -> "Slot":
        """A free slot; KelmBusyError if there is none. It holds what was there before."""
        if self._handle is None:
            raise invalid("the pool was closed; make another one")
        handle = _library.SlotHandle()
        _library.check(_library.pool_acquire(self._handle, byref(handle)))
        return Slot(handle)

    def close(self) -> None:
        self._handle = None

    def __enter__(self) -> "Pool":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


@final
class Slot:
    """The buffers of one inference, to be used for one after the other. From Pool.acquire().

    Views of the buffers keep the memory: it goes back to the pool when the slot was released, its
    task has ended and the last view is gone. Until then no other task gets it.
    """

    def __init__(self, handle: _library.SlotHandle) -> None:
        self._handle: Optional[_library.SlotHandle] = handle
        self._input = _buffer(handle, _library.slot_input)
        self._output = _buffer(handle, _library.slot_output)
        self._aux = _buffer(handle, _library.slot_aux)
        self._sizes = tuple(
            0 if view is None else len(view) for view in (self._input, self._output)
        )
        self._key = _completions.new_key()
        self._options: Optional[Tuple[Any, ...]] = None  # those that the task was filled in for
        self._task = _structs.Task(slot=handle, done=_completions.on_done, user=self._key)
        self._result = _structs.Result()
        self._ticket = c_uint64()
        self._task_address = addressof(self._task)
        self._result_address = addressof(self._result)
        self._ticket_address = addressof(self._ticket)

    @property
    def input(self) -> memoryview:
        """The input's bytes, to be written to. Not a copy."""
        return self._view(self._input, "input")

    @property
    def output(self) -> memoryview:
        """The output's bytes. Not a copy."""
        return self._view(self._output, "output")

    @property
    def aux(self) -> memoryview:
        """The bytes of the auxiliary buffer; see Graph.decode_aux()."""
        return self._view(self._aux, "auxiliary buffer")

    def input_array(self, dtype: Any = "u1", shape: Shape = -1) -> "numpy.ndarray[Any, Any]":
        """The input as a numpy array, without a copy. A shape that takes less is allowed."""
        return _array(self.input, dtype, shape)

    def output_array(self, dtype: Any = "u1", shape: Shape = -1) -> "numpy.ndarray[Any, Any]":
        """The output, likewise."""
        return _array(self.output, dtype, shape)

    def release(self) -> None:
        """Gives the slot back. May be called while its task runs, and more than once."""
        self._handle = self._input = self._output = self._aux = None

    def __enter__(self) -> "Slot":
        return self

    def __exit__(self, *_: object) -> None:
        self.release()

    def _view(self, view: Optional[memoryview], what: str) -> memoryview:
        if view is not None:
            return view
        if self._handle is None:
            raise invalid("the slot was released; acquire another one")
        raise invalid(f"the slots of this pool have no {what}")

    def _prepare(
        self, sizes: Tuple[int, int], deadline: Optional[float], priority: int, aux: int
    ) -> _library.SlotHandle:
        """Fills the task in, if the options are others than the last time."""
        handle = self._handle
        if handle is None:
            raise invalid("the slot was released; acquire another one")
        options = (sizes, deadline, priority, aux)
        if options != self._options:
            if self._sizes != sizes:
                raise invalid(
                    f"the slot has {self._sizes[0]} bytes of input and {self._sizes[1]} of output, "
                    f"the graph {sizes[0]} and {sizes[1]}; make the pool with graph.pool()"
                )
            self._task.deadline_ms = _library.millis_of(deadline)
            self._task.priority = _library.number_of(priority, "the priority")
            self._task.aux_flags = _library.number_of(aux, "aux")
            self._options = options
        return handle


def _buffer(handle: _library.SlotHandle, get: Callable[..., Any]) -> Optional[memoryview]:
    count = c_size_t()
    address = get(handle, byref(count))
    if not address:
        return None
    memory = (c_char * count.value).from_address(address)
    memory._slot = handle  # type: ignore[attr-defined]  # each view keeps `memory`
    return memoryview(memory).cast("B")


def _array(view: memoryview, dtype: Any, shape: Shape) -> "numpy.ndarray[Any, Any]":
    import numpy

    kind = numpy.dtype(dtype)
    array = numpy.frombuffer(view, kind, len(view) // kind.itemsize)  # refuses Python's objects
    count = int(numpy.prod(shape))
    return array[:count].reshape(shape) if count >= 0 else array.reshape(shape)


def bytes_of(data: Any, wanted: int, what: str) -> memoryview:
    """Any buffer as bytes, of the size that the graph wants."""
    view = memoryview(data)
    if view.nbytes != wanted:
        raise invalid(
            f"the {what} has {view.nbytes} bytes, and the graph's has {wanted}; give a buffer of "
            "that size"
        )
    if what == "output":
        if view.readonly or not view.c_contiguous:
            raise invalid("the output is read-only or not contiguous; give one that can be filled")
        return memoryview((c_char * wanted).from_buffer(view)).cast("B")
    try:
        return view.cast("B")
    except (TypeError, ValueError):  # not contiguous, or of a format that memoryview cannot cast
        return memoryview(view.tobytes())
