#!/usr/bin/env python3
"""Nodes with a service and a gateway each, in run directories of their own, behind HAProxy with the
shipped configuration; on simulated accelerators, of which one runs 200 inferences a second.

    cluster.py demo BUILD_DIR [SECONDS]     four clients of REST, and one of gRPC where there is
                                            python3-grpcio, while one node is drained and restarted
                                            and another one loses its devices; the status is 0 if no
                                            request failed and each node had its share
    cluster.py measure BUILD_DIR [NAME...]  the figures of docs/scale-out.md: rates, latency,
                                            restart, faults
"""

import contextlib
import csv
import functools
import io
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request
from typing import Callable, Iterator, Optional

try:
    import grpc
except ImportError:
    grpc = None

SOURCE = pathlib.Path(__file__).resolve().parent.parent
MICROS = 5000
HEAD = f"KELMSIM input=4096 output=1024 memory=24 micros={MICROS}\n"
GRAPH = HEAD.encode() + bytes(range(256)) * 64
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
        settings = '{"security_settings": {"user_group": ""}}'
        (self.work / "config/kelm_service.config").write_text(settings)
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
        model = MODEL | {"expected_devices": devices, "warmup": 1, "queue": 512}
        (self.work / "models/model.json").write_text(json.dumps(model))
        self.rest, self.grpc, self.agent, self.metrics = (free_port() for _ in range(4))
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
        service = self.work / "run/kelm_service.sock"
        ports = {"--rest": self.rest, "--grpc": self.grpc, "--agent": self.agent,
                 "--metrics": self.metrics}
        addresses = [word for name, port in ports.items() for word in (name, f"127.0.0.1:{port}")]
        options = ["--models", self.work / "models", "--socket", service, *addresses, "--drain", 4,
                   "--threads", 1, "--access-log", self.work / "access.log"]
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

    def log(self) -> str:
        return "".join((self.work / f"{name}.log").read_text(errors="replace")[-3000:]
                       for name in ("service", "gateway") if (self.work / f"{name}.log").exists())

    def end_service(self) -> None:
        """The bus hands signals to the service, and ends with it."""
        self.service.send_signal(signal.SIGUSR1)
        try:
            self.service.wait(20)
        except subprocess.TimeoutExpired:
            self.service.kill()
            self.service.wait()
        self.service.stdin.close()

    def kill_service(self) -> None:
        bus = self.service.pid
        daemon = (self.build / "kelmdaemon").resolve()
        for child in pathlib.Path(f"/proc/{bus}/task/{bus}/children").read_text().split():
            if pathlib.Path(f"/proc/{child}/exe").resolve() == daemon:
                os.kill(int(child), signal.SIGKILL)

    def end(self) -> None:
        if self.gateway:
            self.gateway.kill()
            self.gateway.wait()
        if self.service:
            self.end_service()


class Cluster:
    """Nodes behind a HAProxy."""

    def __init__(self, build: pathlib.Path, work: pathlib.Path, devices: list[int]) -> None:
        self.build, self.work = build, work
        self.nodes = [Node(build, work, f"n{number}", count)
                      for number, count in enumerate(devices, 1)]
        self.port, self.grpc = free_port(), free_port()
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
        """The shipped one with these nodes."""
        text = (SOURCE / "examples/haproxy.cfg").read_text()
        text = re.sub(r"stats socket \S+", f"stats socket {self.work}/haproxy.sock", text)
        text = text.replace("bind :8000", f"bind 127.0.0.1:{self.port}")
        text = text.replace("bind :8001", f"bind 127.0.0.1:{self.grpc}")
        text = re.sub(r"    server .*\n", "", text)
        rest = "\nbackend rest\n    http-response set-header X-Node %[srv_name]\n"
        text = text.replace("\nbackend grpc\n", "\n")  # those of grpc are the last in the file
        for node in self.nodes:
            rest += f"    server {node.name} 127.0.0.1:{node.rest} agent-port {node.agent}\n"
        text = text.replace("\nbackend rest\n", rest, 1) + "\nbackend grpc\n"
        for node in self.nodes:
            text += (f"    server {node.name} 127.0.0.1:{node.grpc} agent-port {node.agent}"
                     f" proto h2 check-proto h1 port {node.rest}\n")
        return text

    def servers(self) -> dict[str, dict[str, str]]:
        """HAProxy's statistics of the nodes, as it sees their REST."""
        with socket.socket(socket.AF_UNIX) as peer:
            try:
                peer.connect(str(self.work / "haproxy.sock"))
            except OSError:
                return {node.name: {"status": "no proxy"} for node in self.nodes}
            peer.sendall(b"show stat\n")
            with peer.makefile() as answer:
                text = answer.read()
        rows = csv.DictReader(io.StringIO(text.lstrip("# ")))
        names = [node.name for node in self.nodes]
        return {row["svname"]: row for row in rows
                if row["pxname"] == "rest" and row["svname"] in names}

    def is_up(self, node: Node) -> bool:
        return self.servers()[node.name]["status"] == "UP"

    def load(self, seconds: float, connections: int, port: int = 0,
             rate: float = 0.0) -> subprocess.Popen:
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


def field(number: int, text: bytes) -> bytes:
    """A field of a message of gRPC."""
    size, length = len(text), b""
    while size > 127:
        length += bytes([size & 127 | 128])
        size >>= 7
    return bytes([number << 3 | 2]) + length + bytes([size]) + text


class GrpcClient(threading.Thread):
    """A client of gRPC, with the stock library and a policy to try again where a node is
    unavailable. Its inputs are zeros; all answers have to be as the first."""

    POLICY = {"name": [{}], "retryPolicy": {
        "maxAttempts": 5, "initialBackoff": "0.1s", "maxBackoff": "1s", "backoffMultiplier": 2,
        "retryableStatusCodes": ["UNAVAILABLE"]}}
    SHAPE = field(3, b"\x80\x20")  # 4096
    REQUEST = (field(1, b"model") + field(5, field(1, b"i") + field(2, b"UINT8") + SHAPE) +
               field(7, bytes(4096)))

    def __init__(self, port: int) -> None:
        super().__init__()
        self.requests, self.findings, self.is_ending = 0, [], False
        self._channel = grpc.insecure_channel(f"127.0.0.1:{port}", options=[
            ("grpc.service_config", json.dumps({"methodConfig": [self.POLICY]}))])

    def run(self) -> None:
        infer = self._channel.unary_unary("/inference.GRPCInferenceService/ModelInfer")
        first = None
        while not self.is_ending:
            try:
                answer = infer(self.REQUEST, timeout=20)
            except grpc.RpcError as error:
                self.findings.append(f"gRPC: {error.code().name}: {error.details()}")
                continue
            first = first or answer
            self.requests += 1
            if answer != first or len(answer) < 1024:
                self.findings.append("gRPC: a result is another one")

    def end(self) -> None:
        self.is_ending = True
        self.join()
        self._channel.close()


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
    told = json.loads(load.communicate(timeout=120)[0])
    for why, count in told["failures"].items():
        print(f"failed {count} times: {why}")
    return told


def table(*rows: list) -> None:
    """Columns of words, the first one to the left."""
    cells = [[f"{cell:.1f}" if isinstance(cell, float) else str(cell) for cell in row]
             for row in rows]
    widths = [max(len(row[column]) for row in cells) for column in range(len(rows[0]))]
    for row in cells:
        others = [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        print("  ".join([row[0].ljust(widths[0]), *others]))


def figures(told: dict) -> list:
    return [told["per_second"], told["failed"], told["p50_ms"], told["p99_ms"]]


def demo(build: pathlib.Path, seconds: float) -> int:
    findings = []
    with running(build, [2, 2, 2]) as cluster:
        _, second, third = cluster.nodes
        print("three nodes with two accelerators of 200 inferences a second each, four clients")
        loads = [cluster.load(seconds, 6) for _ in range(4)]
        stock = GrpcClient(cluster.grpc) if grpc else None
        if stock:
            stock.start()
        time.sleep(seconds * 0.1)
        print("n2: the gateway is drained, ends and is started again")
        status = second.restart_gateway()
        if status != 0:
            findings.append(f"the drained gateway ended with status {status}")
        time.sleep(seconds * 0.1)
        print("n3: all accelerators are unplugged")
        third.move_devices("unplug")
        eventually(lambda: "agent" in cluster.servers()["n3"]["status"], "the agent tells HAProxy")
        time.sleep(0.3)  # what was on its way
        before = cluster.servers()["n3"]["stot"]
        time.sleep(seconds * 0.1)
        if cluster.servers()["n3"]["stot"] != before:
            findings.append("n3 had requests without an accelerator")
        print("n3: and plugged in again")
        third.move_devices("plug")
        results = [result(load) for load in loads]
        if stock:
            stock.end()
            findings += stock.findings
        told = get(third.metrics, "/metrics")[1]
        if stock and 'protocol="grpc",code="0"' not in told:
            findings.append("the metrics of n3 know of no gRPC that went well")
        if shutil.which("promtool"):
            check = subprocess.run(["promtool", "check", "metrics"], input=told, text=True,
                                   capture_output=True, check=False)
            findings += (check.stdout + check.stderr).splitlines()
        share = {node.name: sum(row["nodes"].get(node.name, 0) for row in results)
                 for node in cluster.nodes}
    print()
    table(["client", "requests", "per second", "failed", "p50 in ms", "p99 in ms"],
          *[[number, row["requests"], *figures(row)] for number, row in enumerate(results, 1)])
    print()
    table(["node", "requests", "share"],
          *[[name, count, f"{count / sum(share.values()):.1%}"] for name, count in share.items()])
    if stock:
        print(f"\nand {stock.requests} requests by gRPC")
    findings += [f"client {number} had {row['failed']} failures"
                 for number, row in enumerate(results, 1) if row["failed"]]
    findings += [f"{name} had no request" for name, count in share.items() if count == 0]
    print("\n".join(findings) or "no request has failed")
    return 1 if findings else 0


def own_rates(cluster: Cluster, seconds: float) -> list[float]:
    """What each node does alone, asked directly."""
    return [result(cluster.load(seconds, 6 * node.devices, node.rest))["per_second"]
            for node in cluster.nodes]


def measure_rates(build: pathlib.Path) -> None:
    """Throughput of nodes together to the sum of what each does alone, before and after."""
    rows = []
    for devices in ([1], [1, 1], [1, 1, 1, 1], [1, 2, 5]):
        with running(build, devices) as cluster:
            before = own_rates(cluster, 4)
            together = result(cluster.load(12, 6 * sum(devices)))
            after = own_rates(cluster, 4)
        own = sum(map(max, before, after))
        counts = sorted(together["nodes"].items())
        rows.append([" + ".join(map(str, devices)), own, together["per_second"],
                     f"{together['per_second'] / own:.3f}", together["failed"],
                     " ".join(f"{count / together['requests']:.0%}" for _, count in counts)])
    table(["devices of the nodes", "sum alone", "together", "ratio", "failed", "shares"], *rows)


def median_of(rounds: list[dict]) -> list:
    """The figures of rounds of the same, but for the failures, which are added up."""
    columns = [sorted(column) for column in zip(*map(figures, rounds))]
    medians = [column[len(column) // 2] for column in columns]
    return [medians[0], sum(columns[1]), *medians[2:]]


def measure_latency(build: pathlib.Path) -> None:
    """Latency at 70 % of the load, nodes alone and together; medians of five rounds."""
    told: dict[str, list[dict]] = {}
    with running(build, [1, 2, 5]) as cluster:
        for _ in range(5):
            for node in cluster.nodes:
                alone = result(cluster.load(4, 512, node.rest, 0.7 * 200 * node.devices))
                told.setdefault(f"{node.devices} alone", []).append(alone)
            together = result(cluster.load(4, 512, rate=0.7 * 200 * 8))
            told.setdefault("1 + 2 + 5", []).append(together)
    table(["devices of the nodes", "per second", "failed", "p50 in ms", "p99 in ms"],
          *[[name, *median_of(rounds)] for name, rounds in told.items()])


def measure_restart(build: pathlib.Path) -> None:
    """All gateways, then all services, one after the other under load."""
    with running(build, [1, 1, 1]) as cluster:
        load = cluster.load(55, 9)
        time.sleep(1)
        statuses = []
        for node in cluster.nodes:
            statuses.append(node.restart_gateway())
            eventually(functools.partial(cluster.is_up, node), f"{node.name} is back")
        after_gateways = time.monotonic()
        for node in cluster.nodes:
            # The node is drained, the service restarted, and the gateway started again.
            node.gateway.send_signal(signal.SIGTERM)
            statuses.append(node.gateway.wait(60))
            node.end_service()
            node.start()
            eventually(functools.partial(cluster.is_up, node), f"{node.name} is back")
        took = time.monotonic() - after_gateways
        print(f"the gateways ended with {statuses}; {took:.0f} s for the second round")
        told = result(load)
        table(["requests", "failed", "p99 in ms", "slowest in ms"],
              [told["requests"], told["failed"], told["p99_ms"], told["max_ms"]])


def measure_faults(build: pathlib.Path) -> None:
    """What it costs when devices vanish, when a gateway is killed and when a service is."""
    rows = []
    for what in ("devices vanish", "gateway killed", "service killed"):
        with running(build, [1, 1, 1]) as cluster:
            load = cluster.load(9, 9)
            time.sleep(2)
            node = cluster.nodes[2]
            if what == "devices vanish":
                node.move_devices("unplug")
            elif what == "gateway killed":
                node.gateway.kill()
            else:
                node.kill_service()
            time.sleep(2)  # two intervals of the checks
            before = cluster.servers()["n3"]["stot"]
            time.sleep(2)
            late = int(cluster.servers()["n3"]["stot"]) - int(before)
            print(f"{what}:")
            told = result(load)
            rows.append([what, told["requests"], told["failed"], late, told["max_ms"]])
    table(["", "requests", "failed", "after 2 s", "slowest in ms"], *rows)


MEASUREMENTS = {"rates": measure_rates, "latency": measure_latency, "restart": measure_restart,
                "faults": measure_faults}


def main() -> int:
    if len(sys.argv) < 3 or sys.argv[1] not in ("demo", "measure"):
        print(__doc__, file=sys.stderr)
        return 2
    build = pathlib.Path(sys.argv[2]).resolve()
    if sys.argv[1] == "demo":
        return demo(build, float(sys.argv[3]) if len(sys.argv) > 3 else 20.0)
    for name in sys.argv[3:] or MEASUREMENTS:
        print(f"\n{name}: {MEASUREMENTS[name].__doc__}\n", flush=True)
        MEASUREMENTS[name](build)
    return 0


if __name__ == "__main__":
    sys.exit(main())
