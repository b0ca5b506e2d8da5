#!/usr/bin/env python3
"""Nodes with a service and a gateway each, in run directories of their own, behind HAProxy with the
shipped configuration; on simulated accelerators, of which one runs 200 inferences a second.

    cluster.py demo BUILD_DIR [SECONDS]     four clients, while one node is drained and restarted and
                                            another one loses its devices; the status is 0 if no
                                            request failed and each node had its share
    cluster.py measure BUILD_DIR [NAME...]  the figures of docs/scale-out.md, as a table
"""

import contextlib
import csv
import io
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request
from typing import Callable, Iterator, Optional

SOURCE = pathlib.Path(__file__).resolve().parent.parent
MICROS = 5000
GRAPH = f"KELMSIM input=4096 output=1024 memory=24 micros={MICROS}\n".encode() + bytes(range(256)) * 64
MODEL = {
    "graph": "graph",
    "inputs": [{"name": "i", "datatype": "UINT8", "shape": [4096]}],
    "outputs": [{"name": "o", "datatype": "UINT8", "shape": [1024]}],
}


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def eventually(holds: Callable[[], bool], what: str, seconds: float = 30.0) -> None:
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            raise RuntimeError(f"{what}: not within {seconds:.0f} s")
        time.sleep(0.05)


def get(port: int, path: str) -> tuple[int, str]:
    """Status and text; 0 if nobody answers."""
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=5) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()
    except OSError:
        return 0, ""


class Node:
    """A machine: a service on simulated accelerators and its gateway. Processes that it has started
    end with it, by their ids."""

    def __init__(self, build: pathlib.Path, work: pathlib.Path, name: str, devices: int) -> None:
        self.build, self.name, self.devices = build, name, devices
        self.work = work / name
        for folder in ("bin", "config", "path", "models", "run"):
            (self.work / folder).mkdir(parents=True)
        (self.work / "bin/autoboot").symlink_to(build / "tools/simulator/autoboot")
        (self.work / "config/kelm_service.config").write_text('{"security_settings": {"user_group": ""}}')
        # The service ends its boot tool by name; those of other nodes have the same.
        pkill = self.work / "path/pkill"
        pkill.write_text(f"""#!/bin/sh
for process in /proc/[0-9]*; do
    case $(readlink $process/exe) in */autoboot) ;; *) continue ;; esac
    ! grep -qs "{self.work}/bus" $process/environ || kill "${{process#/proc/}}"
done
""")
        pkill.chmod(0o755)
        (self.work / "models/graph").write_bytes(GRAPH)
        model = MODEL | {"expected_devices": devices, "warmup": 1}
        (self.work / "models/model.json").write_text(json.dumps(model))
        self.rest, self.agent, self.metrics = free_port(), free_port(), free_port()
        self.service: Optional[subprocess.Popen] = None
        self.gateway: Optional[subprocess.Popen] = None

    def start(self) -> None:
        self.start_service()
        self.start_gateway()

    def start_service(self) -> None:
        names = [f"1.{number + 1}" for number in range(self.devices)]
        options = [word for name in names for word in ("--device", name)]
        environment = dict(os.environ, PATH=f"{self.work}/path:{os.environ['PATH']}")
        for name in ("KELM_INSTALL_DIR", "HOME"):
            environment[name] = str(self.work)
        environment["KELM_RUN_DIR"] = str(self.work / "run")
        bus = [self.build / "tools/simulator/kelm-usb-bus", "--dir", self.work / "bus"]
        self.service = self._start("service", [*bus, *options, "--", self.build / "kelmdaemon"],
                                   environment, subprocess.PIPE)

    def start_gateway(self) -> None:
        options = ["--models", self.work / "models", "--socket", self.work / "run/kelm_service.sock",
                   "--rest", f"127.0.0.1:{self.rest}", "--agent", f"127.0.0.1:{self.agent}",
                   "--metrics", f"127.0.0.1:{self.metrics}", "--drain", "4", "--threads", "1",
                   "--access-log", self.work / "access.log"]
        self.gateway = self._start("gateway", [self.build / "kelm-gateway", *options], None, None)

    def _start(self, name: str, command: list, environment: Optional[dict],
               standard_input: Optional[int]) -> subprocess.Popen:
        with open(self.work / f"{name}.log", "a", encoding="utf-8") as log:
            return subprocess.Popen([str(word) for word in command], cwd=self.work, env=environment,
                                    stdin=standard_input, stdout=log, stderr=log)

    def is_ready(self) -> bool:
        return get(self.rest, "/v2/health/ready")[0] == 200

    def order(self, line: str) -> None:
        """A command of the bus, as "unplug 1.1"."""
        self.service.stdin.write(line.encode() + b"\n")
        self.service.stdin.flush()

    def move_devices(self, verb: str) -> None:
        for number in range(self.devices):
            self.order(f"{verb} 1.{number + 1}")

    def restart_gateway(self) -> int:
        """The status that the old one has ended with."""
        self.gateway.send_signal(signal.SIGTERM)
        status = self.gateway.wait(60)
        self.start_gateway()
        return status

    def agent_line(self) -> str:
        with socket.create_connection(("127.0.0.1", self.agent), 5) as peer:
            return peer.makefile().readline().strip()

    def handled(self) -> dict[str, int]:
        """Requests for the model by their status."""
        pattern = r'^kelm_gateway_requests_total\{model="model",protocol="rest",code="(\d+)"\} (\d+)'
        return {code: int(count)
                for code, count in re.findall(pattern, get(self.metrics, "/metrics")[1], re.M)}

    def log(self) -> str:
        return "".join((self.work / f"{name}.log").read_text(errors="replace")[-3000:]
                       for name in ("service", "gateway") if (self.work / f"{name}.log").exists())

    def end(self) -> None:
        if self.gateway:
            self.gateway.kill()
            self.gateway.wait()
        if self.service:
            # The bus hands signals to the service, and ends with it.
            self.service.send_signal(signal.SIGUSR1)
            try:
                self.service.wait(20)
            except subprocess.TimeoutExpired:
                self.service.kill()
                self.service.wait()
            self.service.stdin.close()


class Cluster:
    """Nodes behind a HAProxy."""

    def __init__(self, build: pathlib.Path, work: pathlib.Path, devices: list[int]) -> None:
        self.build, self.work = build, work
        self.nodes = [Node(build, work, f"n{number + 1}", count) for number, count in enumerate(devices)]
        self.port = free_port()
        self.proxy: Optional[subprocess.Popen] = None

    def start(self) -> None:
        for node in self.nodes:
            node.start()
        for node in self.nodes:
            eventually(node.is_ready, f"{node.name} is ready")
        config = self.work / "haproxy.cfg"
        config.write_text(self.config())
        subprocess.run(["haproxy", "-c", "-q", "-f", config], check=True)
        with open(self.work / "haproxy.log", "w", encoding="utf-8") as log:
            self.proxy = subprocess.Popen(["haproxy", "-db", "-f", config], stdout=log, stderr=log)
        eventually(lambda: all(row["status"] == "UP" for row in self.servers().values()),
                   "HAProxy has all nodes")
        time.sleep(1.2)  # for the weights of the agents

    def config(self) -> str:
        """The shipped one with these nodes; of the protocols REST alone."""
        text = (SOURCE / "examples/haproxy.cfg").read_text()
        text = text[:text.index("frontend grpc")]
        text = re.sub(r"stats socket \S+", f"stats socket {self.work}/haproxy.sock", text)
        text = text.replace("bind :8000", f"bind 127.0.0.1:{self.port}")
        text = re.sub(r"    server .*\n", "", text)
        text += "    http-response set-header X-Node %[srv_name]\n"
        for node in self.nodes:
            text += f"    server {node.name} 127.0.0.1:{node.rest} agent-port {node.agent}\n"
        return text

    def servers(self) -> dict[str, dict[str, str]]:
        """HAProxy's statistics of the nodes."""
        with socket.socket(socket.AF_UNIX) as peer:
            try:
                peer.connect(str(self.work / "haproxy.sock"))
            except OSError:
                return {node.name: {"status": "no proxy"} for node in self.nodes}
            peer.sendall(b"show stat\n")
            text = peer.makefile().read()
        rows = csv.DictReader(io.StringIO(text.lstrip("# ")))
        return {row["svname"]: row for row in rows if row["svname"].startswith("n") and row["pxname"] == "rest"}

    def load(self, seconds: float, connections: int, port: int = 0, rate: float = 0.0) -> subprocess.Popen:
        """A client of the proxy, or of one node."""
        command = [self.build / "tools/simulator/kelm-infer-load", "--port", port or self.port,
                   "--graph", self.nodes[0].work / "models/graph", "--seconds", seconds,
                   "--connections", connections, "--rate", rate]
        return subprocess.Popen([str(word) for word in command], stdout=subprocess.PIPE, text=True)

    def end(self) -> None:
        if self.proxy:
            self.proxy.kill()
            self.proxy.wait()
        for node in self.nodes:
            node.end()


@contextlib.contextmanager
def running(build: pathlib.Path, devices: list[int]) -> Iterator[Cluster]:
    with tempfile.TemporaryDirectory(prefix="kelm-cluster-") as work:
        cluster = Cluster(build, pathlib.Path(work), devices)
        try:
            cluster.start()
            yield cluster
        except BaseException:
            for node in cluster.nodes:
                print(f"---- {node.name}\n{node.log()}", file=sys.stderr)
            raise
        finally:
            cluster.end()


def result(load: subprocess.Popen) -> dict:
    return json.loads(load.communicate(timeout=120)[0])


def demo(build: pathlib.Path, seconds: float) -> int:
    with running(build, [2, 2, 2]) as cluster:
        first, second, third = cluster.nodes
        print("three nodes with two accelerators of 200 inferences a second each, four clients")
        loads = [cluster.load(seconds, 6) for _ in range(4)]
        time.sleep(seconds * 0.15)
        print(f"{second.name}: the gateway is drained, ends and is started again")
        status = second.restart_gateway()
        time.sleep(seconds * 0.1)
        print(f"{third.name}: all accelerators are unplugged")
        third.move_devices("unplug")
        eventually(lambda: third.agent_line().startswith("down"), "the agent tells that it is down")
        time.sleep(seconds * 0.15)
        print(f"{third.name}: and plugged in again")
        third.move_devices("plug")
        results = [result(load) for load in loads]
        print(f"\n{'client':8} {'requests':>9} {'failed':>7} {'per second':>11} {'p50 in ms':>10} {'p99 in ms':>10}")
        for number, row in enumerate(results, 1):
            print(f"{number:<8} {row['requests']:9} {row['failed']:7} {row['per_second']:11.1f} "
                  f"{row['p50_ms']:10.1f} {row['p99_ms']:10.1f}")
        share = {node.name: sum(row["nodes"].get(node.name, 0) for row in results) for node in cluster.nodes}
        total = sum(share.values())
        print(f"\n{'node':8} {'requests':>9} {'share':>7}")
        for name, count in share.items():
            print(f"{name:8} {count:9} {count / total:7.1%}")
        failures = {why: count for row in results for why, count in row["failures"].items()}
        for why, count in failures.items():
            print(f"failed {count} times: {why}")
        is_good = not failures and status == 0 and min(share.values()) > 0
        print("no request has failed" if is_good else f"SOMETHING WENT WRONG (gateway's status {status})")
        return 0 if is_good else 1


def main() -> int:
    if len(sys.argv) < 3 or sys.argv[1] not in ("demo", "measure"):
        print(__doc__, file=sys.stderr)
        return 2
    build = pathlib.Path(sys.argv[2]).resolve()
    if sys.argv[1] == "demo":
        return demo(build, float(sys.argv[3]) if len(sys.argv) > 3 else 20.0)
    return 2


if __name__ == "__main__":
    sys.exit(main())
