"""Status and snapshots of the service."""

import ctypes
import dataclasses
import select
import time
from ctypes import byref
from typing import Any, Callable, Iterator, Optional, Tuple, Type, TypeVar

from . import _library, _records, _structs
from ._errors import TIMEOUT

Record = TypeVar("Record")
_SNAPSHOT_DEADLINE = 15.0
_SLICE = 0.2  # seconds, after which a wait looks whether another thread has closed the stream


def record_of(kind: Type[Record], struct: ctypes.Structure, **others: Any) -> Record:
    """A record whose fields are those of the struct of the same name, and the others."""
    values = {
        field.name: others[field.name] if field.name in others else _value(struct, field.name)
        for field in dataclasses.fields(kind)
    }
    return kind(**values)


def _value(struct: ctypes.Structure, name: str) -> Any:
    value = getattr(struct, name)
    return value.decode("utf-8", "replace") if isinstance(value, bytes) else value


def _rows(
    count: int,
    kind: Type[Record],
    struct: Type[_structs.Sized],
    get: Callable[..., int],
    *path: Any,
) -> Tuple[Record, ...]:
    rows = []
    for row in range(count):
        filled = struct()
        _library.check(get(*path, row, byref(filled)))
        rows.append(record_of(kind, filled))
    return tuple(rows)


def read_status(status: _library.StatusHandle) -> _records.ServiceStatus:
    info = _structs.StatusInfo()
    _library.check(_library.status_get_info(status, byref(info)))
    return record_of(
        _records.ServiceStatus,
        info,
        devices=_rows(
            info.device_rows,
            _records.DeviceStatus,
            _structs.DeviceRow,
            _library.status_get_device,
            status,
        ),
        graphs=_rows(
            info.graph_rows,
            _records.GraphStatus,
            _structs.GraphRow,
            _library.status_get_graph,
            status,
        ),
        clients=_rows(
            info.client_rows,
            _records.ClientStatus,
            _structs.ClientRow,
            _library.status_get_client,
            status,
        ),
    )


class Snapshots(Iterator[_records.Snapshot]):
    """What the service streams at least every five seconds; an iterator and a context manager. A
    connection of its own, without a client. Read on: the service hangs up on a reader that lags.

    Threads: one reads; close() comes from any, and ends the iteration.
    """

    def __init__(
        self, socket_path: Optional[str] = None, *, deadline: Optional[float] = None
    ) -> None:
        """`socket_path` is that of the service's snapshots, None: the usual one. `deadline` in
        seconds is that of the connecting and, None: 15, of each snapshot."""
        handle = _library.SnapshotsHandle()
        millis = _library.millis_of(deadline)
        path = _library.text_of(socket_path, "socket's path")
        _library.check(_library.snapshots_open(path, millis, byref(handle)))
        self._handle: Optional[_library.SnapshotsHandle] = handle
        _library.holders.add(self)
        self._deadline = _SNAPSHOT_DEADLINE if deadline is None else deadline

    def __next__(self) -> _records.Snapshot:
        if self._handle is None:
            raise StopIteration
        end = time.monotonic() + self._deadline
        info = _structs.SnapshotInfo()
        # Waiting here and not in the library lets signals through, as Ctrl-C.
        while True:
            handle = self._handle
            if handle is None:
                raise StopIteration
            left = max(0.0, end - time.monotonic())
            ready, _, _ = select.select([_library.snapshots_fd(handle)], [], [], min(left, _SLICE))
            if not ready and left > 0:
                continue
            code = _library.snapshots_next(handle, 1, byref(info))
            if code == 0:
                return self._read(handle, info)
            if code != TIMEOUT or left == 0:
                raise _library.error_of(code)

    def _read(
        self, handle: _library.SnapshotsHandle, info: _structs.SnapshotInfo
    ) -> _records.Snapshot:
        return record_of(
            _records.Snapshot,
            info,
            devices=tuple(self._device(handle, row) for row in range(info.device_rows)),
            graphs=_rows(
                info.graph_rows,
                _records.GraphSnapshot,
                _structs.GraphSnapshot,
                _library.snapshots_get_graph,
                handle,
            ),
            clients=_rows(
                info.client_rows,
                _records.ClientSnapshot,
                _structs.ClientSnapshot,
                _library.snapshots_get_client,
                handle,
            ),
        )

    def _device(self, handle: _library.SnapshotsHandle, row: int) -> _records.DeviceSnapshot:
        device = _structs.DeviceSnapshot()
        _library.check(_library.snapshots_get_device(handle, row, byref(device)))
        residencies = _rows(
            device.current_rows + device.previous_rows,
            _records.Residency,
            _structs.Residency,
            _library.snapshots_get_residency,
            handle,
            row,
        )
        return record_of(
            _records.DeviceSnapshot,
            device,
            current=residencies[: device.current_rows],
            previous=residencies[device.current_rows :],
        )

    def close(self) -> None:
        self._handle = None

    def __enter__(self) -> "Snapshots":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

