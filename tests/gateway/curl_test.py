"""curl gets right results from simulated accelerators through the gateway's REST, also while the
model is replaced."""

import concurrent.futures
import contextlib
import json
import os
import re
import signal
import subprocess
import unittest

from simulated_gateway import SIZE, SimulatedGatewayTest, eventually

INPUT = {"name": "in", "shape": [SIZE], "datatype": "UINT8"}
INPUT["parameters"] = {"binary_data_size": SIZE}
HEAD = json.dumps({"inputs": [INPUT], "parameters": {"binary_data_output": True}}).encode()


class CurlTest(SimulatedGatewayTest):
    def infer(self, chunked: bool = False) -> tuple[bytes, bytes]:
        """What is right, and what comes."""
        data = os.urandom(SIZE)
        headers = ["-H", f"Inference-Header-Content-Length: {len(HEAD)}", "-H", "Expect:"]
        if chunked:
            headers += ["-H", "Transfer-Encoding: chunked"]
        command = ("curl", "-sS", "-i", "--max-time", "60", *headers, "--data-binary", "@-")
        answer = subprocess.run((*command, f"{self.url}/v2/models/m/infer"), input=HEAD + data,
                                check=True, stdout=subprocess.PIPE).stdout
        head, _, body = answer.partition(b"\r\n\r\n")
        length = re.search(rb"(?i)inference-header-content-length: (\d+)", head)
        return self.right(data), body[int(length[1]):] if length else answer

    def test_results_are_right_while_versions_of_the_model_come(self) -> None:
        gateway = self.start_gateway()
        for each in (signal.SIGSTOP, signal.SIGCONT):  # no signals to end
            gateway.send_signal(each)
        for chunked in (False, True):
            right, answer = self.infer(chunked)
            self.assertEqual(answer, right)
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for version in "2345":
                self.describe(version)
                while True:
                    for right, answer in pool.map(lambda _: self.infer(), range(4)):
                        self.assertEqual(answer, right)
                    if self.version() == version:
                        break
        self.end(gateway)

    def test_end_does_not_wait_for_a_task_for_ever(self) -> None:
        gateway = self.start_gateway()
        (self.models / "slow").write_bytes(b"KELMSIM input=8 output=8 micros=30000000\n")
        words = {"datatype": "UINT8", "shape": [8]}
        tensors = {"inputs": [words | {"name": "in"}], "outputs": [words | {"name": "out"}]}
        self.describe("1", "slow", graph="slow", window=1, queue=0, warmup=0, **tensors)
        body = {"inputs": [words | {"name": "in", "data": [0] * 8}]}
        body["parameters"] = {"timeout": 3_600_000_000}
        command = ("curl", "-sS", "-d", json.dumps(body), f"{self.url}/v2/models/slow/infer")

        def is_full() -> bool:
            with contextlib.suppress(subprocess.TimeoutExpired):
                asked = self.start(*command, stdout=subprocess.PIPE)
                return "is full" in asked.communicate(timeout=1)[0]
            return False  # it has an accelerator

        self.assertTrue(eventually(is_full))
        for each in (signal.SIGSTOP, signal.SIGINT, signal.SIGTERM, signal.SIGCONT):
            gateway.send_signal(each)
        self.assertEqual(gateway.wait(), 0)
        self.assertIn("ends without it", (self.work / "gateway.log").read_text())


if __name__ == "__main__":
    unittest.main()
