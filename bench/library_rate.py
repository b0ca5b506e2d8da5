#!/usr/bin/env python3
"""Inferences per second through the Python package on pooled numpy tensors, at the service under
KELM_RUN_DIR. The twin of library_rate.cpp: prints one line of JSON."""

import argparse
import asyncio
import json
import time
from typing import List

import numpy

import kelm


class Lane:
    """A task that starts itself again with its slot."""

    def __init__(self, graph: kelm.Graph, pool: kelm.Pool) -> None:
        self.graph = graph
        self.slot = pool.acquire()
        self.input = self.slot.input_array(numpy.uint32)
        self.output = self.slot.output_array(numpy.uint32)
        self.count = 0
        self.stops = False
        self.running = True

    def fill(self) -> None:
        self.input[0] = self.count

    def start(self) -> None:
        self.fill()
        self.graph.submit(self.slot, self.ended)

    def ended(self, slot: kelm.Slot, result: kelm.InferResult) -> None:
        self.running = False
        if result.error is not None:
            raise result.error
        self.count += 1
        if not self.stops:
            self.running = True
            self.start()

    async def run(self, end: float) -> None:
        while time.perf_counter() < end:
            self.fill()
            await self.graph.infer_async(self.slot)
            self.count += 1


def with_callbacks(client: kelm.Client, lanes: List[Lane], end: float) -> None:
    for lane in lanes:
        lane.start()
    while time.perf_counter() < end:
        client.dispatch(0.1)
    for lane in lanes:
        lane.stops = True


async def with_asyncio(lanes: List[Lane], end: float) -> None:
    await asyncio.gather(*(lane.run(end) for lane in lanes))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--depth", type=int, default=8)
    parser.add_argument("--seconds", type=float, default=5.0)
    parser.add_argument("--asyncio", action="store_true", help="await each, instead of callbacks")
    options = parser.parse_args()
    with kelm.Client() as client, client.load_graph(b"graph of the rate") as graph:
        pool = graph.pool()
        lanes = [Lane(graph, pool) for _ in range(options.depth)]
        start = time.perf_counter()
        end = start + options.seconds
        if options.asyncio:
            asyncio.run(with_asyncio(lanes, end))
        else:
            with_callbacks(client, lanes, end)
        seconds = time.perf_counter() - start
        count = sum(lane.count for lane in lanes)
        while not options.asyncio and any(lane.running for lane in lanes):
            client.dispatch(1)
    way = "asyncio" if options.asyncio else "callbacks"
    rate = round(count / seconds)
    print(
        json.dumps(
            {"language": "Python", "way": way, "depth": options.depth, "per_second": rate}
        )
    )


if __name__ == "__main__":
    main()
