"""Inference on the accelerators that kelmdaemon shares among the programs of a machine."""

from ._client import Client
from ._errors import (
    KelmBusyError,
    KelmCanceledError,
    KelmConnectionLostError,
    KelmError,
    KelmExpiredError,
    KelmInvalidArgumentError,
    KelmLibraryError,
    KelmNotConnectedError,
    KelmOutOfMemoryError,
    KelmServiceError,
    KelmSystemError,
    KelmTimeoutError,
)
from ._graph import Graph
from ._library import version_text as _version_text
from ._records import (
    AuxBlocks,
    AuxFlags,
    ClientSnapshot,
    ClientStatus,
    DeviceSnapshot,
    DeviceStatus,
    GraphInfo,
    GraphSnapshot,
    GraphStatus,
    InferResult,
    Residency,
    ServiceStatus,
    Snapshot,
)
from ._status import Snapshots
from ._tensors import Pool, Slot

# Of the library that runs.
__version__ = _version_text().decode()
__all__ = [
    "AuxBlocks",
    "AuxFlags",
    "Client",
    "ClientSnapshot",
    "ClientStatus",
    "DeviceSnapshot",
    "DeviceStatus",
    "Graph",
    "GraphInfo",
    "GraphSnapshot",
    "GraphStatus",
    "InferResult",
    "KelmBusyError",
    "KelmCanceledError",
    "KelmConnectionLostError",
    "KelmError",
    "KelmExpiredError",
    "KelmInvalidArgumentError",
    "KelmLibraryError",
    "KelmNotConnectedError",
    "KelmOutOfMemoryError",
    "KelmServiceError",
    "KelmSystemError",
    "KelmTimeoutError",
    "Pool",
    "Residency",
    "ServiceStatus",
    "Slot",
    "Snapshot",
    "Snapshots",
]
