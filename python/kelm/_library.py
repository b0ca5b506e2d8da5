"""libkelm.so.1: loading it, its functions, and the handles that it gives out."""

import ctypes
import os
import sys
import weakref
from ctypes import POINTER, c_char_p, c_int, c_int32, c_size_t, c_uint32, c_uint64, c_void_p
from typing import Any, Callable, List, Optional, cast

from . import _errors, _structs

MAJOR_VERSION = 1


def _load() -> ctypes.CDLL:
    path = os.environ.get("KELM_LIBRARY") or f"libkelm.so.{MAJOR_VERSION}"
    try:
        library = ctypes.CDLL(path)
        library.kelm_version.restype = c_uint32
        version = library.kelm_version()
    except (OSError, AttributeError) as error:
        raise _errors.KelmLibraryError(
            f"{path} cannot be loaded ({error}); install kelmdaemon's client library or set "
            "KELM_LIBRARY to the path of libkelm.so.1"
        ) from None
    if version >> 16 != MAJOR_VERSION:
        raise _errors.KelmLibraryError(
            f"{path} has version {version >> 16}.{version >> 8 & 255}.{version & 255}, and this "
            f"package needs {MAJOR_VERSION}.x; install a kelm package of the library's version"
        )
    return library


_library = _load()


def _function(name: str, result: Any, *arguments: Any) -> Callable[..., Any]:
    function = getattr(_library, name)
    function.restype = result
    function.argtypes = arguments
    return cast(Callable[..., Any], function)


class Handle(c_void_p):
    """A handle of the library, freed with the last reference to it.

    A call in progress holds one, so that a close in another thread waits for its end. What the
    child of a fork inherits is its parent's, and left alone.
    """

    _free: Callable[[c_void_p], Optional[int]]

    def __init__(self) -> None:
        super().__init__()
        self.generation = _generation

    def __del__(self) -> None:
        if self.value is None or self.generation != _generation:
            return
        if type(self)._free(c_void_p(self.value)) == _errors.INVALID_ARGUMENT:
            # The garbage collector came by inside a callback, where nothing may be closed.
            _orphans.append(self)
        else:
            self.freed()

    def freed(self) -> None:
        """Nothing comes from this handle any more."""


# Forks that lie between this process and the one that loaded the library.
_generation = 0
_orphans: List[Handle] = []
# What has a handle in `_handle`, and must not be used in the child of a fork.
holders: "weakref.WeakSet[Any]" = weakref.WeakSet()


def _forget_all() -> None:
    global _generation
    _generation += 1
    for holder in list(holders):
        holder._handle = None


os.register_at_fork(after_in_child=_forget_all)


def free_orphans() -> None:
    """To be called outside of callbacks."""
    while _orphans:
        _orphans.pop().__del__()


class ClientHandle(Handle):
    options: _structs.ClientOptions  # its callbacks are called as long as the handle lives
    completions: Any

    def freed(self) -> None:
        self.completions.deliver_last()


class GraphHandle(Handle):
    pass


class PoolHandle(Handle):
    pass


class SlotHandle(Handle):
    pass


class StatusHandle(Handle):
    pass


class SnapshotsHandle(Handle):
    pass


version = _function("kelm_version", c_uint32)
version_text = _function("kelm_version_text", c_char_p)
error_name = _function("kelm_error_name", c_char_p, c_int)
last_error = _function("kelm_last_error", c_char_p)

connect = _function(
    "kelm_connect", c_int, POINTER(_structs.ClientOptions), POINTER(ClientHandle)
)
is_connected = _function("kelm_is_connected", c_int, ClientHandle)
client_id = _function("kelm_client_id", c_uint64, ClientHandle)
fd = _function("kelm_fd", c_int, ClientHandle)
dispatch = _function("kelm_dispatch", c_int, ClientHandle, c_int)
device_reset = _function("kelm_device_reset", c_int, ClientHandle, c_uint32, c_int32)

_graph_options = (POINTER(_structs.GraphOptions), POINTER(GraphHandle))
graph_from_memory = _function(
    "kelm_graph_from_memory", c_int, ClientHandle, c_char_p, c_size_t, *_graph_options
)
graph_from_file = _function(
    "kelm_graph_from_file", c_int, ClientHandle, c_char_p, *_graph_options
)
graph_from_service_file = _function(
    "kelm_graph_from_service_file", c_int, ClientHandle, c_char_p, *_graph_options
)
graph_get_info = _function(
    "kelm_graph_get_info", c_int, GraphHandle, POINTER(_structs.GraphInfo)
)

pool_create = _function(
    "kelm_pool_create", c_int, c_size_t, c_size_t, c_size_t, c_size_t, POINTER(PoolHandle)
)
pool_acquire = _function("kelm_pool_acquire", c_int, PoolHandle, POINTER(SlotHandle))
slot_input = _function("kelm_slot_input", c_void_p, SlotHandle, POINTER(c_size_t))
slot_output = _function("kelm_slot_output", c_void_p, SlotHandle, POINTER(c_size_t))
slot_aux = _function("kelm_slot_aux", c_void_p, SlotHandle, POINTER(c_size_t))

# Tasks, results and tickets by their addresses, which are taken once for each slot.
infer_async = _function("kelm_infer_async", c_int, GraphHandle, c_void_p, c_void_p)
infer = _function("kelm_infer", c_int, GraphHandle, c_void_p, c_void_p)
cancel = _function("kelm_cancel", c_int, GraphHandle, c_uint64, POINTER(c_int))
aux_decode = _function(
    "kelm_aux_decode",
    c_int,
    POINTER(_structs.GraphInfo),
    c_uint32,
    c_void_p,
    c_size_t,
    POINTER(_structs.Aux),
)

status_query = _function(
    "kelm_status_query", c_int, ClientHandle, c_int32, POINTER(StatusHandle)
)
status_get_info = _function(
    "kelm_status_get_info", c_int, StatusHandle, POINTER(_structs.StatusInfo)
)
status_get_device = _function(
    "kelm_status_get_device", c_int, StatusHandle, c_uint32, POINTER(_structs.DeviceRow)
)
status_get_graph = _function(
    "kelm_status_get_graph", c_int, StatusHandle, c_uint32, POINTER(_structs.GraphRow)
)
status_get_client = _function(
    "kelm_status_get_client", c_int, StatusHandle, c_uint32, POINTER(_structs.ClientRow)
)

snapshots_open = _function(
    "kelm_snapshots_open", c_int, c_char_p, c_int32, POINTER(SnapshotsHandle)
)
snapshots_next = _function(
    "kelm_snapshots_next", c_int, SnapshotsHandle, c_int32, POINTER(_structs.SnapshotInfo)
)
snapshots_fd = _function("kelm_snapshots_fd", c_int, SnapshotsHandle)
snapshots_get_device = _function(
    "kelm_snapshots_get_device", c_int, SnapshotsHandle, c_uint32, POINTER(_structs.DeviceSnapshot)
)
snapshots_get_residency = _function(
    "kelm_snapshots_get_residency",
    c_int,
    SnapshotsHandle,
    c_uint32,
    c_uint32,
    POINTER(_structs.Residency),
)
snapshots_get_graph = _function(
    "kelm_snapshots_get_graph", c_int, SnapshotsHandle, c_uint32, POINTER(_structs.GraphSnapshot)
)
snapshots_get_client = _function(
    "kelm_snapshots_get_client", c_int, SnapshotsHandle, c_uint32, POINTER(_structs.ClientSnapshot)
)

for _handle, _name, _result in (
    (ClientHandle, "kelm_close", c_int),
    (GraphHandle, "kelm_graph_free", c_int),
    (PoolHandle, "kelm_pool_free", None),
    (SlotHandle, "kelm_slot_release", None),
    (StatusHandle, "kelm_status_free", None),
    (SnapshotsHandle, "kelm_snapshots_close", None),
):
    # A function of ctypes is no method: it is called without the handle.
    _handle._free = _function(_name, _result, c_void_p)


def error_of(code: int, text: Optional[bytes] = None) -> _errors.KelmError:
    """The error as an exception; without a text that of this thread's last call."""
    words = last_error() if text is None else text
    return _errors.class_of(code)(
        code, error_name(code).decode(), words.decode("utf-8", "replace")
    )


def check(code: int, handle: Optional[Handle] = None, owner: str = "") -> None:
    """Raises the error of a call; `owner` names what has the handle, None if it was closed."""
    if code == 0:
        return
    if code == _errors.INVALID_ARGUMENT and handle is None and owner:
        raise _errors.closed(owner)
    raise error_of(code)


def text_of(value: Any, what: str) -> Optional[bytes]:
    """A text or path for the library; None stays None."""
    if value is None:
        return None
    encoded = os.fsencode(value)
    if b"\0" in encoded:
        raise _errors.invalid(f"the {what} contains a NUL character; give it without")
    return encoded


def millis_of(deadline: Optional[float]) -> int:
    """Seconds as the library's milliseconds; None is its default."""
    if deadline is None:
        return 0
    if not 0 < deadline <= 2**31 / 1000 - 1:
        raise _errors.invalid(
            f"a deadline of {deadline} seconds; give more than 0 and less than 24 days, or None "
            "for the default"
        )
    return max(1, round(deadline * 1000))


def number_of(value: int, what: str, highest: int = 2**32 - 1) -> int:
    """Checked here, since ctypes would cut it off silently."""
    if not 0 <= value <= highest:
        raise _errors.invalid(f"{what} is {value}; give a number from 0 to {highest}")
    return int(value)


def default_name() -> Optional[bytes]:
    """The script's, as others see the client; None leaves it to the library."""
    script = os.path.basename(sys.argv[0]) if sys.argv else ""
    return None if script in ("", "-c", "-m", "-") else os.fsencode(script)[:31]
