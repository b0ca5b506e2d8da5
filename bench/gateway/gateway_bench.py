#!/usr/bin/python3
"""What does the gateway cost? Its REST and gRPC beside libkelm at the same service and a bare gRPC
echo of the same sizes, in turn and in one run. bench/README.md tells what the columns are.

    gateway_bench.py BUILD_DIR [--rounds N] [--seconds S] [--json FILE] [--threads N]
"""

import argparse
import json
import os
import pathlib
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time

LOADS = ((1, 1), (4, 8))
# A name, the bytes of the input and of the output, and whether accelerators are simulated: the plain
# devices know one size only, of whose input the model takes a part.
SIZES = (("4 KB", 4096, 4000, False), ("600 KB", 614400, 4096, True))


def varint(value: int) -> bytes:
    out = b""
    while value > 127:
        out, value = out + bytes([value & 127 | 128]), value >> 7
    return out + bytes([value])


def field(number: int, content: bytes) -> bytes:
    return varint(number << 3 | 2) + varint(len(content)) + content


def free_port() -> int:
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


class Bench:
    def __init__(self, options, size, work: pathlib.Path) -> None:
        self.name, self.input, self.output, self.simulated = size
        self.options, self.work = options, work
        self.build = pathlib.Path(options.build).resolve()
        self.processes: list[subprocess.Popen] = []
        for name in ("bin", "config", "models"):
            (work / name).mkdir()
        settings = {"security_settings": {"user_group": ""},
                    "debug_settings": {"debug_service": False}}
        if not self.simulated:
            latencies = ("alloc_graph_latency", "load_tensor_latency", "get_result_latency")
            devices = {"enable_fake_device": True, "fake_device_number": 3,
                       "latency_distribution_stddev": 0.0}
            settings["fake_device_settings"] = devices | dict.fromkeys(latencies, 0)
        (work / "config/kelm_service.config").write_text(json.dumps(settings))
        (work / "bin/autoboot").symlink_to(self.build / "tools/simulator/autoboot")
        graph = f"KELMSIM input={self.input} output={self.output} micros=0\n"
        (work / "models/graph").write_text(graph)
        row = lambda name, size: {"name": name, "datatype": "UINT8", "shape": [size]}
        model = {"graph": "graph", "inputs": [row("in", self.input)], "queue": 64, "warmup": 2}
        model |= {"outputs": [row("out", self.output)], "expected_devices": 2}
        (work / "models/m.json").write_text(json.dumps(model))
        self.environment = dict(os.environ, KELM_RUN_DIR=str(work), KELM_INSTALL_DIR=str(work),
                                HOME=str(work))

    def start(self, *command) -> None:
        log = open(self.work / "log", "a")
        self.processes.append(subprocess.Popen([str(each) for each in command], cwd=self.work,
            env=self.environment, stdin=subprocess.PIPE, stdout=log, stderr=log))

    def await_log(self, pattern: str) -> re.Match:
        for _ in range(600):
            found = re.search(pattern, (self.work / "log").read_text())
            if found:
                return found
            time.sleep(0.05)
        sys.exit(f"no '{pattern}' in:\n" + (self.work / "log").read_text())

    def __enter__(self):
        daemon = [self.build / "kelmdaemon"]
        if self.simulated:
            bus = [self.build / "tools/simulator/kelm-usb-bus", "--dir", self.work / "bus"]
            daemon = [*bus, "--device", "1.1", "--device", "1.2", "--", *daemon]
        self.start(*daemon)
        ports = ("--rest", "127.0.0.1:0", "--grpc", "127.0.0.1:0", "--drain", "0")
        self.start(self.build / "kelm-gateway", "--models", self.work / "models", *ports,
                   "--threads", self.options.threads)
        echo = f"127.0.0.1:{free_port()}"
        answer = ("--answer-bytes", self.output)
        self.start(self.build / "bench/grpc_echo", "--serve", echo, *answer)
        self.addresses = {"echo": echo}
        for name, pattern in (("gRPC", "serves gRPC on"), ("REST", "serves on")):
            port = self.await_log(rf"{pattern} \S+, port (\d+)")[1]
            self.addresses[name] = f"127.0.0.1:{port}"
        self.await_log("model 'm'.*serves")
        self.write_requests()
        return self

    def __exit__(self, *_) -> None:
        for each in reversed(self.processes):
            each.terminate()
            each.communicate()

    def write_requests(self) -> None:
        tensor = bytes(self.input)
        shape = field(3, varint(self.input))
        described = field(1, b"in") + field(2, b"UINT8") + shape
        (self.work / "gRPC").write_bytes(field(1, b"m") + field(5, described) + field(7, tensor))
        (self.work / "echo").write_bytes(field(1, tensor))
        words = {"name": "in", "shape": [self.input], "datatype": "UINT8"}
        words["parameters"] = {"binary_data_size": self.input}
        part = json.dumps({"inputs": [words], "parameters": {"binary_data_output": True}}).encode()
        head = f"POST /v2/models/m/infer HTTP/1.1\r\nHost: h\r\nContent-Length: " \
               f"{len(part) + self.input}\r\nInference-Header-Content-Length: {len(part)}\r\n\r\n"
        (self.work / "REST").write_bytes(head.encode() + part + tensor)

    def measure(self, subject: str, clients: int, depth: int) -> dict:
        load = ["--clients", clients, "--depth", depth, "--seconds", self.options.seconds]
        if subject == "libkelm":
            report = self.work / "report.json"
            graph = ["--graph", self.work / "models/graph", "--json", report]
            self.run(self.build / "kelmctl", "bench", *load, *graph)
            found = json.loads(report.read_text())
            return {"rate": found["results_per_second"],
                    "p50_us": found["clients"][0]["result"]["p50_ms"] * 1000}
        how = {"REST": ["--rest"], "echo": ["--target", "/kelm.bench.echo.Echo/Unary"],
               "gRPC": ["--target", "/inference.GRPCInferenceService/ModelInfer"]}[subject]
        load += ["--address", self.addresses[subject], "--request", self.work / subject]
        load += ["--answer-bytes", self.output]
        return json.loads(self.run(self.build / "bench/gateway_load", *load, *how))

    def run(self, *command) -> str:
        return subprocess.run([str(each) for each in command], env=self.environment, check=True,
                              stdout=subprocess.PIPE, text=True).stdout


def measure_size(options, size) -> list[dict]:
    subjects = ["libkelm", "echo", "REST", "gRPC"]
    rows = []
    with tempfile.TemporaryDirectory() as work, Bench(options, size, pathlib.Path(work)) as bench:
        for clients, depth in LOADS:
            rounds = {name: [] for name in subjects}
            for _ in range(options.rounds):
                for name in subjects:
                    rounds[name].append(bench.measure(name, clients, depth))
                subjects.reverse()  # so that none always comes after the same one
            rows.append({"size": size[0], "clients": clients, "depth": depth, "rounds": rounds})
    return rows


def median(row: dict, value) -> float:
    """Of the rounds, since a busy machine slows all that is in one."""
    names = row["rounds"]
    rounds = [dict(zip(names, each)) for each in zip(*names.values())]
    return statistics.median(value(each) for each in rounds)


def print_row(row: dict) -> None:
    print(f"\n{row['size']}, {row['clients']} x {row['depth']}"
          "            median, us   added, us   of echo's   rate, 1/s   of echo's")
    for name in ("libkelm", "echo", "REST", "gRPC"):
        time_of = median(row, lambda each: each[name]["p50_us"])
        added = lambda each: each[name]["p50_us"] - each["libkelm"]["p50_us"]
        share = lambda each: added(each) / each["echo"]["p50_us"]
        rate = median(row, lambda each: each[name]["rate"])
        ratio = median(row, lambda each: each[name]["rate"] / each["echo"]["rate"])
        more = f"{median(row, added):12.1f}{median(row, share):12.2f}"
        more = more if name in ("REST", "gRPC") else " " * 24
        print(f"  {name:20}{time_of:12.1f}{more}{rate:12.0f}{ratio:12.2f}")


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2.0)
    parser.add_argument("--threads", type=int, default=1, help="of the gateway")
    parser.add_argument("--json", help="a file for the figures of each round")
    options = parser.parse_args()
    rows = [row for size in SIZES for row in measure_size(options, size)]
    for row in rows:
        print_row(row)
    if options.json:
        pathlib.Path(options.json).write_text(json.dumps({"schema": 1, "rows": rows}, indent=1))


if __name__ == "__main__":
    main()
