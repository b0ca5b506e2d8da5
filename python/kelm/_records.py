"""What the service and the library tell, as immutable records."""

import enum
from dataclasses import dataclass
from typing import Optional, Tuple

from ._errors import KelmError


class AuxFlags(enum.IntFlag):
    """Auxiliary blocks that an inference may ask for."""

    TIME_TAKEN = 1
    THERMAL = 2
    DEBUG = 4


@dataclass(frozen=True)
class InferResult:
    """How an inference ended. Times are 0 where it did not come so far."""

    error: Optional[KelmError]
    ticket: int
    task_id: int  # the service's number
    waited_ns: int  # in this process, before it was sent
    accepted_ns: int  # from the sending to the service's word that it has the task
    total_ns: int  # from the call to the end


@dataclass(frozen=True)
class GraphInfo:
    """Sizes in bytes; the three last ones are those of the auxiliary blocks."""

    window: int  # tasks sent and not ended, at most
    id: int  # the service's number; another one after a reconnect
    input_bytes: int
    output_bytes: int
    time_taken_bytes: int
    thermal_bytes: int
    debug_bytes: int


@dataclass(frozen=True)
class AuxBlocks:
    """The auxiliary blocks of an inference; None for one that was not asked for."""

    time_taken_ms: Optional[Tuple[float, ...]]  # of each layer
    thermal: Optional[bytes]
    debug: Optional[bytes]
    celsius: Optional[float]


@dataclass(frozen=True)
class DeviceStatus:
    id: int
    name: str
    graph: str  # resident now; "" for none
    rate: float
    celsius: float
    subclass: int


@dataclass(frozen=True)
class GraphStatus:
    name: str
    rate_in: float
    rate_out: float


@dataclass(frozen=True)
class ClientStatus:
    name: str
    rate: float


@dataclass(frozen=True)
class ServiceStatus:
    """Rates are per second. Counts are the true ones, rows what an answer has room for."""

    rate: float
    device_count: int
    graph_count: int
    client_count: int
    device_scheduler: str
    task_scheduler: str
    devices: Tuple[DeviceStatus, ...]
    graphs: Tuple[GraphStatus, ...]
    clients: Tuple[ClientStatus, ...]


@dataclass(frozen=True)
class Residency:
    """A graph on a device, now or, with a time of unload, before. Times are HH:MM:SS."""

    graph: str
    rate: float
    loaded: str
    unloaded: str  # "" for one that is there now
    inferences: int


@dataclass(frozen=True)
class DeviceSnapshot:
    id: int
    celsius: float
    throttling_level: int
    current: Tuple[Residency, ...]
    previous: Tuple[Residency, ...]


@dataclass(frozen=True)
class GraphSnapshot:
    id: int
    name: str
    devices: int
    rate_in: float
    rate_out: float
    inferences: int
    waiting_tasks: int
    client_count: int


@dataclass(frozen=True)
class ClientSnapshot:
    id: int
    name: str
    api_major: int
    api_minor: int
    inferences: int
    waiting_tasks: int


@dataclass(frozen=True)
class Snapshot:
    """Memory in megabytes: of the service's process, `total_mb` of the machine."""

    virtual_mb: int
    resident_mb: int
    shared_mb: int
    total_mb: int
    graph_count: int
    client_count: int
    devices: Tuple[DeviceSnapshot, ...]
    graphs: Tuple[GraphSnapshot, ...]
    clients: Tuple[ClientSnapshot, ...]
