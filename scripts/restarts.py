"""Part of restarts.sh: restarts.py N GRAPH.

In each round the service starts, all clients get results of it, and it is stopped in the middle of
their tasks: it must end with status 0. What lies in its directory and in /var/tmp afterwards is what lay
there after the first round. Clients have no more descriptors and segments in the end than in the
beginning, and leave none.
"""

import asyncio
import ctypes
import multiprocessing
import os
import random
import signal
import statistics
import subprocess
import sys
import time
from typing import Callable, List

import kelm

CLIENTS = 3
DEPTH = 4
PATIENCE = 20.0  # seconds, for anything at all
PLACES = (os.environ["KELM_RUN_DIR"], "/var/tmp")
SEGMENTS = "/dev/shm"
SLACK = 4 * DEPTH  # what tasks may hold at one moment and not at another


class Load:
    """A client process; `done` counts its results, `lost` the tasks that a stop has ended."""

    def __init__(self, graph: str) -> None:
        self.done = multiprocessing.Value(ctypes.c_uint64, 0)
        self.lost = multiprocessing.Value(ctypes.c_uint64, 0)
        self.leave = multiprocessing.Event()
        self.process = multiprocessing.Process(target=lambda: asyncio.run(self.run(graph)))
        self.process.start()

    async def run(self, path: str) -> None:
        with kelm.Client(name="load", reconnect=True) as client, client.load_graph(path) as graph:
            pool = graph.pool()
            await asyncio.gather(*(self.keep_busy(graph, pool) for _ in range(DEPTH)))

    async def keep_busy(self, graph: kelm.Graph, pool: kelm.Pool) -> None:
        slot = pool.acquire()
        while not self.leave.is_set():
            try:
                await graph.infer_async(slot, deadline=PATIENCE)
                self.done.value += 1
            except kelm.KelmConnectionLostError:
                self.lost.value += 1
                slot.release()  # its memory is of no use any more
                slot = pool.acquire()

    def holds(self) -> int:
        """Its descriptors and segments."""
        pid = self.process.pid
        segments = [name for name in os.listdir(SEGMENTS) if name.startswith(f"kelm-{pid}-")]
        return len(os.listdir(f"/proc/{pid}/fd")) + len(segments)


def wait_for(what: str, condition: Callable[[], bool]) -> None:
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"restarts: {what} not within {PATIENCE:.0f} s")
        time.sleep(0.002)


def files() -> List[str]:
    return sorted(f"{place}/{name}" for place in PLACES for name in os.listdir(place))


class Service:
    def __init__(self) -> None:
        directory = os.environ["KELM_INSTALL_DIR"]
        begin = time.monotonic()
        with open(os.environ["HOME"] + "/log", "w", encoding="utf-8") as log:
            self.process = subprocess.Popen(
                [f"{directory}/bin/kelmdaemon"], cwd=os.environ["HOME"], stdout=log, stderr=log
            )
        subprocess.run([f"{directory}/bin/kelmctl", "wait-ready"], check=True)
        self.start_millis = (time.monotonic() - begin) * 1000

    def stop(self) -> float:
        """The milliseconds that it took."""
        begin = time.monotonic()
        self.process.send_signal(signal.SIGUSR1)
        status = self.process.wait(PATIENCE)
        if status != 0:
            sys.exit(f"restarts: the service has ended with status {status}")
        return (time.monotonic() - begin) * 1000


def all_gain(loads: List[Load]) -> Callable[[], bool]:
    """True when every client has got a result since now."""
    before = [load.done.value for load in loads]
    return lambda: all(load.done.value > count for load, count in zip(loads, before))


def tell(what: str, millis: List[float]) -> None:
    print(f"{what}: median {statistics.median(millis):.0f} ms, longest {max(millis):.0f} ms")


def main(rounds: int, graph: str) -> None:
    loads: List[Load] = []
    starts, stops, returns = [], [], []
    kept: List[str] = []
    held: List[int] = []
    for number in range(rounds):
        service = Service()
        starts.append(service.start_millis)
        loads = loads or [Load(graph) for _ in range(CLIENTS)]
        begin = time.monotonic()
        wait_for("results of all clients", all_gain(loads))
        returns.append((time.monotonic() - begin) * 1000)
        if number == 1:
            held = [load.holds() for load in loads]
        time.sleep(random.uniform(0, 0.05))  # so that the stop meets tasks of all ages
        stops.append(service.stop())
        kept = kept or files()
        if files() != kept:
            sys.exit(f"restarts: round {number} left {set(files()) ^ set(kept)}")
        if (number + 1) % 100 == 0:
            print(f"{number + 1} rounds, {sum(load.done.value for load in loads)} results")

    service = Service()
    wait_for("results of all clients", all_gain(loads))
    grown = [load.holds() - count for load, count in zip(loads, held)]
    for load in loads:
        load.leave.set()
    for load in loads:
        load.process.join(PATIENCE)
        if load.process.exitcode != 0:
            sys.exit(f"restarts: a client has ended with status {load.process.exitcode}")
    stops.append(service.stop())
    tell("from start to ready", starts)
    tell("from ready until all clients have results", returns)
    tell("from signal to end", stops)
    print(f"results {sum(load.done.value for load in loads)}, "
          f"tasks ended by a stop {sum(load.lost.value for load in loads)}")
    print(f"left, and used again by each start: {' '.join(files())}")
    print(f"descriptors and segments of clients more than at first: {grown}")
    if os.listdir("/var/tmp") or os.listdir(SEGMENTS):
        sys.exit(f"restarts: left as well: {os.listdir(SEGMENTS)} {os.listdir('/var/tmp')}")
    if any(count > SLACK for count in grown):
        sys.exit("restarts: clients hold more and more")


if __name__ == "__main__":
    try:
        main(int(sys.argv[1]), sys.argv[2])
    finally:
        for child in multiprocessing.active_children():
            child.kill()
