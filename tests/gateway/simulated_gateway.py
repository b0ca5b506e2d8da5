"""A gateway with one model, on the service with simulated accelerators."""

import json
import os
import re
import signal
import subprocess
import urllib.error
import urllib.request

from simulated_service import SimulatedServiceTest, eventually

SIZE = 614400  # of the input and of the output


class SimulatedGatewayTest(SimulatedServiceTest):
    def setUp(self) -> None:
        super().setUp()
        self.models = self.work / "models"
        self.models.mkdir()
        self.graph = f"KELMSIM input={SIZE} output={SIZE} micros=500\n".encode() + os.urandom(64)
        (self.models / "graph").write_bytes(self.graph)
        self.describe("1")
        self.start_service()

    def describe(self, version: str, name: str = "m", **more) -> None:
        tensor = {"datatype": "UINT8", "shape": [SIZE]}
        words = {"graph": "graph", "version": version, "expected_devices": 2, "warmup": 2}
        words |= {"inputs": [tensor | {"name": "in"}], "outputs": [tensor | {"name": "out"}]} | more
        (self.models / "next").write_text(json.dumps(words))
        (self.models / "next").rename(self.models / f"{name}.json")

    def start_gateway(self, *options: str) -> subprocess.Popen:
        """Once it is ready; with `url`, where its REST is."""
        listen = ("--models", str(self.models), "--rest", "127.0.0.1:0", "--drain", "0")
        with open(self.work / "gateway.log", "w") as log:
            gateway = self.start(os.environ["KELM_GATEWAY"], *listen, *options, stderr=log)
        self.url = f"http://127.0.0.1:{self.port('serves on')}"
        self.assertTrue(eventually(self.is_ready), (self.work / "gateway.log").read_text())
        return gateway

    def port(self, words: str) -> str:
        pattern = rf"{words} \S+, port (\d+)"
        return eventually(lambda: re.findall(pattern, (self.work / "gateway.log").read_text()))[0]

    def is_ready(self) -> bool:
        try:
            return urllib.request.urlopen(f"{self.url}/v2/health/ready").status == 200
        except urllib.error.HTTPError:
            return False

    def version(self) -> str:
        with urllib.request.urlopen(f"{self.url}/v2/models/m") as answer:
            return json.load(answer)["versions"][0]

    def right(self, data: bytes) -> bytes:
        """What the accelerators make of it: its exclusive or with the graph's digest."""
        digest = 0xCBF29CE484222325
        for byte in self.graph:
            digest = (digest ^ byte) * 0x100000001B3 % 2**64
        key = int.from_bytes(digest.to_bytes(8, "little") * (SIZE // 8), "big")
        return (int.from_bytes(data, "big") ^ key).to_bytes(SIZE, "big")

    def end(self, gateway: subprocess.Popen) -> None:
        gateway.send_signal(signal.SIGTERM)
        self.assertEqual(gateway.wait(), 0)
