#!/usr/bin/env python3
"""A camera loop: frames are submitted as they come, four at a time, and their results are checked.

camera.py GRAPH [FRAMES]
"""

import asyncio
import collections
import sys
from typing import Iterator

import kelm

DEPTH = 4


async def run_lane(
    graph: kelm.Graph, slot: kelm.Slot, frames: Iterator[int], results: "collections.Counter[int]"
) -> None:
    """Takes one frame after the other; all lanes take from the same camera."""
    image, answer = slot.input, slot.output
    for number in frames:
        mark = number.to_bytes(4, "little")
        image[:4] = answer[:4] = mark  # the picture; simulated devices leave the output as it was
        await graph.infer_async(slot, deadline=5.0)
        if image[:4] == mark and len(answer) == graph.output_bytes:
            results[number] += 1


async def main(path: str, count: int) -> int:
    results: "collections.Counter[int]" = collections.Counter()
    with kelm.Client(name="camera") as client, client.load_graph(path) as graph:
        pool = graph.pool(DEPTH)
        frames = iter(range(count))
        await asyncio.gather(
            *(run_lane(graph, pool.acquire(), frames, results) for _ in range(DEPTH))
        )
    good = sum(results[number] == 1 for number in range(count))
    print(f"{good} of {count} frames")
    return 0 if good == count else 1


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit("usage: camera.py GRAPH [FRAMES]")
    try:
        sys.exit(asyncio.run(main(sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 100)))
    except kelm.KelmError as error:
        sys.exit(f"camera.py: {error}")
