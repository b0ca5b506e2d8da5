"""The connection to the service."""

import asyncio
import atexit
import logging
import math
import os
import threading
import time
import weakref
from ctypes import byref
from typing import Any, Callable, Optional, Tuple

from . import _library, _structs
from ._completions import Completions
from ._errors import INVALID_ARGUMENT, SYSTEM_ERROR, closed, invalid
from ._graph import Graph
from ._records import ServiceStatus
from ._status import Snapshots, read_status

_RECONNECT, _DISPATCH = 1, 2
_ALL_DEVICES = 2**32 - 1
_SLICE_MS = 200  # after which a wait looks whether another thread has closed the client

_log = logging.getLogger("kelm")


class Client:
    """A registered connection to the service; a context manager.

    Threads: any may call any operation, but one at a time runs the callbacks: dispatch(), or the
    event loop that awaits Graph.infer_async(). Nothing of the program but on_warning
    runs on other threads.
    """

    def __init__(
        self,
        socket_path: Optional[str] = None,
        *,
        name: Optional[str] = None,
        deadline: Optional[float] = None,
        reconnect: bool = False,
        on_warning: Optional[Callable[[str], object]] = None,
        on_connection: Optional[Callable[[bool], object]] = None,
    ) -> None:
        """Connects and registers, in `deadline` seconds, None: 10.

        socket_path: None for the usual one, or the one under $KELM_RUN_DIR.
        name: as others see the client, at most 31 bytes; None for the script's.
        reconnect: connect, register and load the graphs again, as often as needed. Tasks on their
            way end with KelmConnectionLostError, those that wait in this process are sent then.
        on_warning: told on any thread of what goes on in another way than wanted; None logs it.
        on_connection: called as callbacks are when the connection is lost (False) or back (True).
        """
        self._handle: Optional[_library.ClientHandle] = None
        self._completions = completions = Completions()
        completions.on_connection = on_connection
        self._graphs: "weakref.WeakSet[Graph]" = weakref.WeakSet()
        self._dispatching = threading.Lock()
        self._loop: Optional[asyncio.AbstractEventLoop] = None

        def tell_warning(text: bytes, _: Any) -> None:
            words = text.decode("utf-8", "replace")
            if on_warning is None:
                _log.warning("%s", words)
            else:
                on_warning(words)

        def tell_connection(up: int, _: Any) -> None:
            completions.connection_changes.append(up != 0)

        handle = _library.ClientHandle()
        options = _structs.ClientOptions(
            flags=_DISPATCH | (_RECONNECT if reconnect else 0),
            socket_path=_library.text_of(socket_path, "socket's path"),
            name=_library.text_of(name, "name") if name is not None else _library.default_name(),
            deadline_ms=_library.millis_of(deadline),
            on_warning=_structs.WarningFunction(tell_warning),
            on_connection=_structs.ConnectionFunction(tell_connection),
        )
        handle.options = options
        handle.completions = completions
        _library.check(_library.connect(byref(options), byref(handle)))
        self._handle = handle
        self._fd: int = _library.fd(handle)
        self._socket_path = socket_path
        _library.holders.add(self)

    @property
    def connected(self) -> bool:
        return bool(_library.is_connected(self._handle))

    @property
    def id(self) -> int:
        """The service's number for this client; another one after a reconnect."""
        return int(_library.client_id(self._handle))

    def load_graph(
        self,
        source: Any,
        *,
        name: Optional[str] = None,
        tag: Optional[str] = None,
        stream_id: Optional[str] = None,
        subclass: int = 0,
        expect_devices: int = 0,
        window: int = 0,
        max_waiting: int = 0,
        by_service: bool = False,
        deadline: Optional[float] = None,
    ) -> Graph:
        """Loads a compiled graph: from a file for a str or path, else from any buffer.

        name: as others see the graph; None for the path, or "unnamed".
        tag, stream_id: pick reserved devices; None for shared ones.
        subclass: of devices.
        expect_devices: how many would be of use; 0: one.
        window: tasks sent and not ended, at most; 0: some for each device.
        max_waiting: tasks that wait in this process, at most; 0: 65,536.
        by_service: the service reads the file, and must have the rights to. Saves sending it.
        deadline: of the load, in seconds; None: 60.
        """
        highest = 2**31 - 1
        options = _structs.GraphOptions(
            deadline_ms=_library.millis_of(deadline),
            name=_library.text_of(name, "graph's name"),
            tag=_library.text_of(tag, "tag"),
            stream_id=_library.text_of(stream_id, "stream_id"),
            subclass=_library.number_of(subclass, "subclass", highest),
            expect_devices=_library.number_of(expect_devices, "expect_devices", highest),
            window=_library.number_of(window, "window"),
            max_waiting=_library.number_of(max_waiting, "max_waiting"),
        )
        handle = _library.GraphHandle()
        if isinstance(source, (str, os.PathLike)):
            load = _library.graph_from_service_file if by_service else _library.graph_from_file
            content: Tuple[Any, ...] = (_library.text_of(source, "path"),)
        else:
            load = _library.graph_from_memory
            data = bytes(memoryview(source))
            content = (data, len(data))
        self._check(load(self._handle, *content, byref(options), byref(handle)))
        graph = Graph(self, handle)
        self._graphs.add(graph)
        return graph

    def status(self, deadline: Optional[float] = None) -> ServiceStatus:
        """What the service is doing now."""
        handle = _library.StatusHandle()
        millis = _library.millis_of(deadline)
        self._check(_library.status_query(self._handle, millis, byref(handle)))
        return read_status(handle)

    def snapshots(self) -> Snapshots:
        """The stream of the service's snapshots, over a connection of its own."""
        if self._socket_path is None:
            return Snapshots()
        folder = os.path.dirname(os.fspath(self._socket_path))
        return Snapshots(os.path.join(folder, "kelm_snapshot.sock"))

    def reset_device(self, device: Optional[int] = None, deadline: Optional[float] = None) -> None:
        """Resets the device of this number; None: all of them. `deadline` in seconds, None: 60."""
        number = _ALL_DEVICES
        if device is not None:
            number = _library.number_of(device, "the device", _ALL_DEVICES - 1)
        self._check(_library.device_reset(self._handle, number, _library.millis_of(deadline)))

    def fileno(self) -> int:
        """For select(): readable while callbacks are due."""
        if self._handle is None:
            raise closed("client")
        return self._fd

    def dispatch(self, timeout: Optional[float] = 0) -> int:
        """Waits up to `timeout` seconds (None: without limit) for callbacks to be due, and runs
        them. How many ended tasks and changes there were. What a callback raises comes out here;
        the callbacks that are left run the next time."""
        if timeout is not None and not timeout >= 0:
            raise invalid("a timeout is negative; give seconds, or None for no limit")
        if self._loop is not None and self._loop.is_running():
            raise invalid("an event loop runs this client's callbacks; await infer_async() there")
        if not self._dispatching.acquire(blocking=False):
            raise invalid("this client's callbacks run already; call dispatch() in one thread only")
        try:
            return self._dispatch(timeout)
        finally:
            self._dispatching.release()

    def close(self) -> None:
        """Unregisters, and ends what is pending with KelmConnectionLostError: those who wait are
        told on this thread. Its graphs are closed as well. May be called more than once."""
        loop = self._loop
        if loop is not None and not loop.is_closed():
            if loop.is_running() and asyncio._get_running_loop() is not loop:
                raise invalid("the client's event loop runs in another thread; close it there")
            loop.remove_reader(self._fd)
        self._loop = None
        self._end()

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _end(self) -> None:
        graphs = list(self._graphs)
        handles = [graph._handle for graph in graphs]
        for graph in graphs:
            graph.close()
        self._handle = None  # before the graphs' handles, which then have nothing to wait for
        handles.clear()

    def _check(self, code: int) -> None:
        _library.check(code, self._handle, "client")

    def _bind(self, loop: asyncio.AbstractEventLoop) -> None:
        """From now on the callbacks run in this loop, which runs in this thread."""
        if self._loop is loop:
            return
        if self._handle is None:
            raise closed("client")
        if not self._dispatching.acquire(blocking=False):
            raise invalid("this client's callbacks run already; do not call dispatch() as well")
        try:
            last = self._loop
            if last is not None and not last.is_closed():
                if last.is_running() or self._completions.has_started(last):
                    raise invalid(
                        "another event loop runs this client's callbacks; connect a client for "
                        "each loop"
                    )
                last.remove_reader(self._fd)
            loop.add_reader(self._fd, self._on_readable)
            self._loop = loop
        finally:
            self._dispatching.release()

    def _on_readable(self) -> None:
        loop = self._loop
        if loop is None or not self._dispatching.acquire(blocking=False):
            return
        try:
            if _library.dispatch(self._handle, 0) < 0:
                loop.remove_reader(self._fd)
            _library.free_orphans()
            self._completions.deliver(loop)
        finally:
            self._dispatching.release()
            if self._completions.count():  # after an exception
                loop.call_soon(self._on_readable)

    def _dispatch(self, timeout: Optional[float]) -> int:
        end = math.inf if timeout is None else time.monotonic() + timeout
        completions = self._completions
        wait = 0.0 if completions.count() else end - time.monotonic()
        while True:
            # In slices: a close in another thread waits for the end of this call.
            millis = 0 if wait <= 0 else math.ceil(min(_SLICE_MS, wait * 1000))
            if _library.dispatch(self._handle, millis) < 0:
                self._check(INVALID_ARGUMENT if self._handle is None else SYSTEM_ERROR)
            _library.free_orphans()
            count = completions.count()
            if count:
                completions.deliver()
                return count
            wait = end - time.monotonic()
            if wait <= 0:
                return 0


def _close_all() -> None:
    """Before the interpreter is taken apart. Clients that were left open must still unregister."""
    holders = list(_library.holders)
    for holder in holders:
        if isinstance(holder, Client):
            holder._end()
    for holder in holders:
        holder._handle = None


atexit.register(_close_all)
