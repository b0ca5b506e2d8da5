#!/usr/bin/python3
"""Makes docs/images/page.png anew: the page of `kelmctl export` of a service that is busy on four
simulated devices, after MINUTES of it (16, so that the charts are full). Needs a release build, and
Debian's chromium and python3-numpy.

    scripts/page_picture.py [MINUTES]
"""

import os
import pathlib
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = ROOT / "build/release"
sys.path[:0] = [str(ROOT / path) for path in ("python", "python/tests", "tests/page")]
os.environ.update(
    KELM_DAEMON=str(BUILD / "kelmdaemon"), KELM_CTL=str(BUILD / "kelmctl"),
    KELM_LIBRARY=str(BUILD / "libkelm.so"),
)

import kelm  # noqa: E402
from browser import Browser, Tab  # noqa: E402
from service import Service  # noqa: E402

# Client, its graph, inferences at a time, pause after each in seconds, and, in seconds, how long it
# works and rests in turn.
CLIENTS = (
    ("gate-camera", "detector", 2, 0.03, 3600, 0),
    ("yard-camera", "detector", 2, 0.05, 400, 60),
    ("plate-reader", "characters", 3, 0.02, 150, 90),
    ("indexer", "embedding", 8, 0.0, 45, 210),
    ("night-report", "embedding", 4, 0.1, 200, 320),
)


def infer(client: kelm.Client, row: tuple, until: float) -> None:
    _, name, _, pause, busy, idle = row
    graph = client.load_graph(name.encode(), name=name)
    tensor = bytes(36000)
    while time.monotonic() < until:
        if (time.monotonic() - until) % (busy + idle) < idle:
            time.sleep(0.2)
            continue
        try:
            graph.infer(tensor)
        except kelm.KelmError:
            return
        time.sleep(pause)


def main() -> None:
    seconds = float(sys.argv[1] if len(sys.argv) > 1 else 16) * 60
    service = Service(latency_ms=12, devices=4)
    exporter = subprocess.Popen(
        [os.environ["KELM_CTL"], "export", "--listen", "127.0.0.1:0"],
        cwd=service.dir, env=service.environment, stdout=subprocess.PIPE, text=True,
    )
    try:
        port = exporter.stdout.readline().split()[-1]
        until = time.monotonic() + seconds
        clients = [kelm.Client(service.socket, name=row[0]) for row in CLIENTS]
        threads = [
            threading.Thread(target=infer, args=(client, row, until + 20))
            for client, row in zip(clients, CLIENTS)
            for _ in range(row[2])
        ]
        for thread in threads:
            thread.start()
        time.sleep(max(0.0, until - time.monotonic()))
        browser = Browser("chromium")
        tab = Tab(browser, 1200).open(f"http://127.0.0.1:{port}/")
        tab.wait("document.body.className === 'live'")
        picture = ROOT / "docs/images/page.png"
        picture.parent.mkdir(exist_ok=True)
        tab.shoot(picture)
        browser.close()
        print(f"{picture}: {picture.stat().st_size} bytes")
        for thread in threads:
            thread.join()
        for client in clients:
            client.close()
    finally:
        exporter.terminate()
        exporter.wait()
        service.remove()


if __name__ == "__main__":
    main()
