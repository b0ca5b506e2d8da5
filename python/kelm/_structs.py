"""The structs of kelm/kelm.h, field by field. A test compares them with what a C compiler says."""

import ctypes
from ctypes import POINTER, c_char_p, c_float, c_int32, c_uint16, c_uint32, c_uint64, c_void_p
from typing import Any

DoneFunction = ctypes.CFUNCTYPE(None, c_void_p, c_void_p)
WarningFunction = ctypes.CFUNCTYPE(None, c_char_p, c_void_p)
ConnectionFunction = ctypes.CFUNCTYPE(None, ctypes.c_int, c_void_p)


class Sized(ctypes.Structure):
    """Its `size` is filled in."""

    def __init__(self, **fields: Any) -> None:
        super().__init__(**fields)
        self.size = ctypes.sizeof(self)


class ClientOptions(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("flags", c_uint32),
        ("socket_path", c_char_p),
        ("name", c_char_p),
        ("deadline_ms", c_int32),
        ("reserved", c_int32),
        ("on_warning", WarningFunction),
        ("on_connection", ConnectionFunction),
        ("user", c_void_p),
    ]


class GraphOptions(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("deadline_ms", c_int32),
        ("name", c_char_p),
        ("tag", c_char_p),
        ("stream_id", c_char_p),
        ("subclass", c_int32),
        ("expect_devices", c_int32),
        ("window", c_uint32),
        ("max_waiting", c_uint32),
    ]


class GraphInfo(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("window", c_uint32),
        ("id", c_uint64),
        ("input_bytes", c_uint64),
        ("output_bytes", c_uint64),
        ("time_taken_bytes", c_uint64),
        ("thermal_bytes", c_uint64),
        ("debug_bytes", c_uint64),
    ]


class Tensor(ctypes.Structure):
    _fields_ = [("kind", c_int32), ("fd", c_int32), ("name", c_char_p), ("bytes", c_uint64)]


class Task(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("deadline_ms", c_int32),
        ("slot", c_void_p),
        ("input", Tensor),
        ("output", Tensor),
        ("aux", Tensor),
        ("aux_flags", c_uint32),
        ("priority", c_uint32),
        ("cookie", c_uint64),
        ("done", DoneFunction),
        ("user", c_void_p),
    ]


class Result(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("error", c_int32),
        ("text", c_void_p),
        ("ticket", c_uint64),
        ("cookie", c_uint64),
        ("task_id", c_uint64),
        ("waited_ns", c_uint64),
        ("accepted_ns", c_uint64),
        ("total_ns", c_uint64),
    ]


# The same for the module `struct`, which takes it apart in one step.
RESULT_FORMAT = "@IiPQQQQQQ"


class Aux(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("time_taken_count", c_uint32),
        ("time_taken_ms", POINTER(c_float)),
        ("thermal", c_void_p),
        ("thermal_bytes", c_uint64),
        ("debug", c_void_p),
        ("debug_bytes", c_uint64),
        ("celsius", c_float),
        ("reserved", c_uint32),
    ]


class StatusInfo(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("rate", c_float),
        ("device_count", c_uint32),
        ("graph_count", c_uint32),
        ("client_count", c_uint32),
        ("device_rows", c_uint32),
        ("graph_rows", c_uint32),
        ("client_rows", c_uint32),
        ("device_scheduler", c_char_p),
        ("task_scheduler", c_char_p),
    ]


class DeviceRow(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("id", c_uint32),
        ("name", c_char_p),
        ("graph", c_char_p),
        ("rate", c_float),
        ("celsius", c_float),
        ("subclass", c_int32),
        ("reserved", c_int32),
    ]


class GraphRow(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("rate_in", c_float),
        ("rate_out", c_float),
        ("reserved", c_uint32),
        ("name", c_char_p),
    ]


class ClientRow(Sized):
    _fields_ = [("size", c_uint32), ("rate", c_float), ("name", c_char_p)]


class SnapshotInfo(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("device_rows", c_uint32),
        ("graph_rows", c_uint32),
        ("client_rows", c_uint32),
        ("graph_count", c_uint32),
        ("client_count", c_uint32),
        ("virtual_mb", c_uint64),
        ("resident_mb", c_uint64),
        ("shared_mb", c_uint64),
        ("total_mb", c_uint64),
    ]


class Residency(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("rate", c_float),
        ("graph", c_char_p),
        ("loaded", c_char_p),
        ("unloaded", c_char_p),
        ("inferences", c_uint64),
    ]


class DeviceSnapshot(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("id", c_uint32),
        ("celsius", c_float),
        ("throttling_level", c_int32),
        ("current_rows", c_uint32),
        ("previous_rows", c_uint32),
    ]


class GraphSnapshot(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("devices", c_uint32),
        ("id", c_uint64),
        ("name", c_char_p),
        ("rate_in", c_float),
        ("rate_out", c_float),
        ("inferences", c_uint64),
        ("waiting_tasks", c_uint64),
        ("client_count", c_uint32),
        ("reserved", c_uint32),
    ]


class ClientSnapshot(Sized):
    _fields_ = [
        ("size", c_uint32),
        ("api_major", c_uint16),
        ("api_minor", c_uint16),
        ("id", c_uint64),
        ("name", c_char_p),
        ("inferences", c_uint64),
        ("waiting_tasks", c_uint64),
    ]


# By their names in C, for the test.
STRUCTS = {
    "kelm_client_options": ClientOptions,
    "kelm_graph_options": GraphOptions,
    "kelm_graph_info": GraphInfo,
    "kelm_tensor": Tensor,
    "kelm_task": Task,
    "kelm_result": Result,
    "kelm_aux": Aux,
    "kelm_status_info": StatusInfo,
    "kelm_device_row": DeviceRow,
    "kelm_graph_row": GraphRow,
    "kelm_client_row": ClientRow,
    "kelm_snapshot_info": SnapshotInfo,
    "kelm_residency": Residency,
    "kelm_device_snapshot": DeviceSnapshot,
    "kelm_graph_snapshot": GraphSnapshot,
    "kelm_client_snapshot": ClientSnapshot,
}
