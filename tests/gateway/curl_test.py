"""curl gets right results from simulated accelerators through the gateway's REST, also while the
model is replaced."""

import concurrent.futures
import json
import os
import re
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


if __name__ == "__main__":
    unittest.main()
