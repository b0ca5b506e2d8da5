"""A client that the stock generator makes gets right results from simulated accelerators through
the gateway's gRPC, and an error for each fault."""

import contextlib
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import unittest

import grpc
from simulated_gateway import SIZE, SimulatedGatewayTest, eventually

PROTOS = pathlib.Path(os.environ["KELM_PROTOS"])
generated = tempfile.TemporaryDirectory()
unittest.addModuleCleanup(generated.cleanup)
out = (f"-I{PROTOS}", f"--python_out={generated.name}", f"--grpc_python_out={generated.name}")
protos = ("open_inference.proto", "health.proto")
generator = (sys.executable, "-W", "ignore", "-m", "grpc_tools.protoc")
subprocess.run((*generator, *out, *protos), check=True)
sys.path.append(generated.name)
import health_pb2 as health
import health_pb2_grpc
import open_inference_pb2 as inference
import open_inference_pb2_grpc

SERVING, SERVICE_UNKNOWN = 1, 3
# A datatype, its field, two elements, and what is wrong in the field: too large, or another field.
TYPES = (
    ("BOOL", "bool_contents", [True, False], {"int_contents": [1, 0]}),
    ("UINT8", "uint_contents", [0, 255], {"uint_contents": [0, 256]}),
    ("UINT16", "uint_contents", [1, 65535], {"uint_contents": [0, 65536]}),
    ("UINT32", "uint_contents", [2, 2**32 - 1], {"int_contents": [0, 1]}),
    ("UINT64", "uint64_contents", [3, 2**64 - 1], {"uint64_contents": [1]}),
    ("INT8", "int_contents", [-128, 127], {"int_contents": [0, 128]}),
    ("INT16", "int_contents", [-(2**15), 2**15 - 1], {"int_contents": [-(2**15) - 1, 0]}),
    ("INT32", "int_contents", [-(2**31), 2**31 - 1], {"int64_contents": [0, 0]}),
    ("INT64", "int64_contents", [-(2**63), 2**63 - 1], {"int64_contents": [1, 2, 3]}),
    ("FP32", "fp32_contents", [0.25, -1.5], {"fp64_contents": [0.25, -1.5]}),
    ("FP64", "fp64_contents", [0.1, -1e300], {"fp32_contents": [0.25, -1.5]}),
    ("FP16", None, None, {"fp32_contents": [1, 2]}),
    ("BF16", None, None, {}),
)
CODES = dict(zip((row[0] for row in TYPES), "?BHIQbhiqfdHH"))
CHANNEL = [("grpc.max_receive_message_length", -1)]


def tensor(name: str, datatype: str, shape: list[int], **more):
    kind = inference.ModelInferRequest.InferInputTensor
    return kind(name=name, datatype=datatype, shape=shape, **more)


def request(**more):
    words = {"model_name": "m", "inputs": [tensor("in", "UINT8", [SIZE])]}
    return inference.ModelInferRequest(**(words | more))


def field(number: int, content: bytes) -> bytes:
    """A field of bytes, shorter than 128."""
    return bytes([number << 3 | 2, len(content)]) + content


class GrpcTest(SimulatedGatewayTest):
    def setUp(self) -> None:
        super().setUp()
        log = ("--access-log", f"{self.work}/access.log")
        self.gateway = self.start_gateway("--grpc", "127.0.0.1:0", "--grpc", f"unix:{self.work}/g", *log)
        self.address = f"127.0.0.1:{self.port('serves gRPC on')}"
        self.connect(self.address)

    def connect(self, address: str) -> None:
        self.channel = grpc.insecure_channel(address, CHANNEL)
        self.addCleanup(self.channel.close)
        self.stub = open_inference_pb2_grpc.GRPCInferenceServiceStub(self.channel)
        self.health = health_pb2_grpc.HealthStub(self.channel)

    def put_graph(self, name: str, size: int, micros: int = 500) -> None:
        (self.models / name).write_text(f"KELMSIM input={size} output={size} micros={micros}\n")

    def await_model(self, name: str) -> None:
        ready = inference.ModelReadyRequest(name=name)

        def look() -> bool:
            try:
                return self.stub.ModelReady(ready).ready
            except grpc.RpcError:
                return False

        self.assertTrue(eventually(look), (self.work / "gateway.log").read_text())

    def code_of(self, call) -> str:
        with self.assertRaises(grpc.RpcError) as context:
            call()
        code = context.exception.code().name
        self.assertTrue(context.exception.details() or code == "UNIMPLEMENTED")
        return code

    def test_raw_results_are_right_on_both_kinds_of_socket(self) -> None:
        for address in (self.address, f"unix:{self.work}/g"):
            self.connect(address)
            for _ in range(5):
                data = os.urandom(SIZE)
                answer = self.stub.ModelInfer(request(id="7", raw_input_contents=[data]))
                self.assertEqual(answer.raw_output_contents[0], self.right(data))
                self.assertEqual((answer.model_name, answer.model_version), ("m", "1"))
                self.assertEqual((answer.id, answer.outputs[0].shape), ("7", [SIZE]))
        self.end(self.gateway)
        lines = map(json.loads, (self.work / "access.log").read_text().splitlines())
        infers = [line for line in lines if line["operation"] == "infer"]
        self.assertEqual(len(infers), 10)
        self.assertTrue(all(SIZE < line["bytes_in"] < SIZE + 100 for line in infers), infers)

    def test_contents_of_each_datatype(self) -> None:
        for datatype, *_ in TYPES:
            size = 2 * struct.calcsize(CODES[datatype])
            self.put_graph(f"{datatype}.graph", size)
            words = {"datatype": datatype, "shape": [2, 1]}
            tensors = {"inputs": [words | {"name": "in"}], "outputs": [words | {"name": "out"}]}
            self.describe("1", datatype, graph=f"{datatype}.graph", expected_devices=1, **tensors)
        for datatype, name, elements, wrong in TYPES:
            with self.subTest(datatype):
                self.await_model(datatype)

                def infer(raw: bytes | None = None, **contents):
                    more = {"raw_input_contents": [raw]} if raw else {"contents": contents}
                    shaped = tensor("in", datatype, [2, 1], contents=more.pop("contents", None))
                    one = request(model_name=datatype, inputs=[shaped], **more)
                    return self.stub.ModelInfer(one)

                self.assertEqual(self.code_of(lambda: infer(**wrong)), "INVALID_ARGUMENT")
                layout = "<2" + CODES[datatype]
                if name is None:
                    self.assertEqual(len(infer(b"abcd").raw_output_contents[0]), 4)
                    continue
                raw = infer(struct.pack(layout, *elements)).raw_output_contents[0]
                answer = infer(**{name: elements}).outputs[0]
                self.assertEqual((answer.datatype, answer.shape), (datatype, [2, 1]))
                self.assertEqual(
                    repr(list(getattr(answer.contents, name))),
                    repr([bool(each) for each in raw] if datatype == "BOOL" else
                         list(struct.unpack(layout, raw))))

    def test_elements_of_bytes_are_framed(self) -> None:
        self.put_graph("bytes.graph", 16)
        words = {"name": "in", "datatype": "BYTES", "shape": [-1], "bytes": 16}
        result = {"name": "out", "datatype": "UINT8", "shape": [16]}
        more = {"expected_devices": 1, "inputs": [words], "outputs": [result]}
        self.describe("1", "bytes", graph="bytes.graph", **more)
        self.await_model("bytes")
        contents = {"bytes_contents": [b"ab", b"", b"c"]}
        framed = request(model_name="bytes", inputs=[tensor("in", "BYTES", [3])],
                         raw_input_contents=[b"\2\0\0\0ab\0\0\0\0\1\0\0\0c"])
        told = request(model_name="bytes", inputs=[tensor("in", "BYTES", [3], contents=contents)])
        elements = self.stub.ModelInfer(told).outputs[0].contents.uint_contents
        self.assertEqual(bytes(elements), self.stub.ModelInfer(framed).raw_output_contents[0])
        framed.inputs[0].shape[0] = 2
        self.assertEqual(self.code_of(lambda: self.stub.ModelInfer(framed)), "INVALID_ARGUMENT")

    def test_server_and_model_are_told_and_watched(self) -> None:
        self.assertTrue(self.stub.ServerLive(inference.ServerLiveRequest()).live)
        self.assertTrue(self.stub.ServerReady(inference.ServerReadyRequest()).ready)
        server = self.stub.ServerMetadata(inference.ServerMetadataRequest())
        self.assertEqual(server.name, "kelm-gateway")
        about = self.stub.ModelMetadata(inference.ModelMetadataRequest(name="m", version="1"))
        self.assertEqual((about.name, about.versions, about.platform), ("m", ["1"], "kelm"))
        self.assertEqual((about.inputs[0].datatype, about.outputs[0].shape), ("UINT8", [SIZE]))
        states = {"": SERVING, "inference.GRPCInferenceService": SERVING, "m": SERVING}
        for service, state in states.items():
            told = self.health.Check(health.HealthCheckRequest(service=service)).status
            self.assertEqual(told, state, service)
        unknown = health.HealthCheckRequest(service="x")
        self.assertEqual(self.code_of(lambda: self.health.Check(unknown)), "NOT_FOUND")

        watched = self.health.Watch(health.HealthCheckRequest(service="x"))
        self.assertEqual(next(watched).status, SERVICE_UNKNOWN)
        self.describe("1", "x")
        self.assertEqual(next(watched).status, SERVING)
        (self.models / "x.json").unlink()
        self.assertEqual(next(watched).status, SERVICE_UNKNOWN)
        self.end(self.gateway)
        self.assertEqual(self.code_of(lambda: list(watched)), "UNAVAILABLE")

    def test_faults_are_told_by_their_code(self) -> None:
        raw = {"raw_input_contents": [bytes(SIZE)]}
        shaped = lambda **more: {"inputs": [tensor(**({"name": "in", "datatype": "UINT8",
                                                       "shape": [SIZE]} | more))]} | raw
        number = lambda **value: inference.InferParameter(**value)
        wanted = inference.ModelInferRequest.InferRequestedOutputTensor
        twice = tensor("in", "UINT8", [SIZE])
        rows = (
            ("NOT_FOUND", raw | {"model_name": "x"}),
            ("NOT_FOUND", raw | {"model_name": ""}),
            ("NOT_FOUND", raw | {"model_version": "2"}),
            ("INVALID_ARGUMENT", {}),
            ("INVALID_ARGUMENT", {"inputs": []} | raw),
            ("INVALID_ARGUMENT", {"inputs": []}),
            ("INVALID_ARGUMENT", {"raw_input_contents": [b"x"]}),
            ("INVALID_ARGUMENT", {"raw_input_contents": [bytes(SIZE + 1)]}),
            ("INVALID_ARGUMENT", {"raw_input_contents": [bytes(SIZE), b""]}),
            ("INVALID_ARGUMENT", {"inputs": [twice, twice], "raw_input_contents": 2 * [bytes(SIZE)]}),
            ("INVALID_ARGUMENT", shaped(contents={"uint_contents": [1]})),
            ("INVALID_ARGUMENT", shaped(name="x")),
            ("INVALID_ARGUMENT", shaped(datatype="INT8")),
            ("INVALID_ARGUMENT", shaped(datatype="")),
            ("INVALID_ARGUMENT", shaped(shape=[1, SIZE])),
            ("INVALID_ARGUMENT", shaped(shape=[-1])),
            ("INVALID_ARGUMENT", shaped(shape=[-SIZE])),
            ("INVALID_ARGUMENT", shaped(shape=[1] * 17)),
            ("INVALID_ARGUMENT", shaped(shape=[2**62, 4])),
            ("INVALID_ARGUMENT", {"inputs": [twice] * 257} | raw),
            ("INVALID_ARGUMENT", raw | {"id": "x" * 1025}),
            ("INVALID_ARGUMENT", raw | {"outputs": [wanted(name="x")]}),
            ("INVALID_ARGUMENT", raw | {"outputs": [wanted(name="out")] * 2}),
            ("INVALID_ARGUMENT", raw | {"parameters": {"timeout": number(int64_param=-1)}}),
            ("INVALID_ARGUMENT", raw | {"parameters": {"timeout": number(string_param="1")}}),
            ("INVALID_ARGUMENT", raw | {"parameters": {"timeout": number(uint64_param=2**63)}}),
            ("INVALID_ARGUMENT", raw | {"parameters": {"priority": number(int64_param=16)}}),
            ("INVALID_ARGUMENT", raw | {"parameters": {"priority": number()}}),
            ("DEADLINE_EXCEEDED", raw | {"parameters": {"timeout": number(int64_param=1)}}),
            ("OUT_OF_RANGE", {"id": "x" * (4 << 20)} | raw),
            ("RESOURCE_EXHAUSTED", {"raw_input_contents": [bytes(65 << 20)]}),
        )
        for i, (code, words) in enumerate(rows):
            with self.subTest(i, words=list(words)):
                self.assertEqual(self.code_of(lambda: self.stub.ModelInfer(request(**words))), code)
        self.refuse_malformed_bytes()
        self.assertEqual(len(self.stub.ModelInfer(request(**raw)).raw_output_contents[0]), SIZE)
        talkative = lambda: self.stub.ModelInfer(request(), metadata=[("x", "y" * 9000)])
        self.assertEqual(self.code_of(talkative), "RESOURCE_EXHAUSTED")

    def refuse_malformed_bytes(self) -> None:
        service = "/inference.GRPCInferenceService/"
        named = field(1, b"m")
        rows = (
            ("ModelInfer", b"\xff"),
            ("ModelInfer", b"\x00"),
            ("ModelInfer", named + b"\x0b"),  # a group
            ("ModelInfer", named + b"\x0c"),
            ("ModelInfer", named + b"\x0f\x00"),  # no such type
            ("ModelInfer", named + b"\x3a\x7f"),  # raw content that is not there
            ("ModelInfer", named + b"\x3a\xff\xff\xff\xff\x0f"),
            ("ModelInfer", named + b"\x3a" + b"\xff" * 11),
            ("ModelInfer", named + b"\x2a\xff\xff\xff\x00"),
            ("ModelInfer", named + b"\x2d1"),  # four bytes that are not there
            ("ModelInfer", named + b"\x29" + bytes(7)),
            ("ModelInfer", named + field(5, b"\xff")),
            ("ModelInfer", named + field(5, field(5, field(4, b"\x80")))),  # half a number
            ("ModelInfer", field(1, b"\xff\xfe")),  # no UTF-8
            ("ModelInfer", named + 257 * field(7, b"")),
            ("ModelInfer", named + 257 * field(6, b"")),
            ("ModelReady", b"\xff"),
            ("ModelMetadata", field(1, b"\xc0")),
            ("ServerLive", b"\x0a\x05"),
        )
        for method, message in rows:
            with self.subTest(method, message=message[:20]):
                call = self.channel.unary_unary(service + method)
                self.assertEqual(self.code_of(lambda: call(message)), "INVALID_ARGUMENT")
        call = self.channel.unary_unary(service + "Train")
        self.assertEqual(self.code_of(lambda: call(b"")), "UNIMPLEMENTED")
        compressed = lambda: self.stub.ModelInfer(request(), compression=grpc.Compression.Gzip)
        self.assertEqual(self.code_of(compressed), "UNIMPLEMENTED")

    def test_pressure_deadlines_and_cancels_reach_the_device(self) -> None:
        self.put_graph("slow.graph", 8, 3_000_000)
        words = {"datatype": "UINT8", "shape": [8]}
        tensors = {"inputs": [words | {"name": "in"}], "outputs": [words | {"name": "out"}]}
        slow = {"expected_devices": 1, "window": 1, "queue": 1, "warmup": 0}
        self.describe("1", "slow", graph="slow.graph", **slow, **tensors)
        self.await_model("slow")
        one = request(model_name="slow", inputs=[tensor("in", "UINT8", [8])],
                      raw_input_contents=[bytes(8)])
        full = lambda: self.code_of(lambda: self.stub.ModelInfer(one, timeout=30))
        first, second = (self.stub.ModelInfer.future(one) for _ in range(2))
        self.assertTrue(eventually(lambda: full() == "RESOURCE_EXHAUSTED"))
        second.cancel()
        late = lambda: self.code_of(lambda: self.stub.ModelInfer(one, timeout=0.2))
        # The place of what was canceled is free.
        self.assertTrue(eventually(lambda: late() == "DEADLINE_EXCEEDED"))
        self.gateway.send_signal(signal.SIGTERM)
        self.assertEqual(len(first.result().raw_output_contents[0]), 8)
        self.assertEqual(self.gateway.wait(), 0)

    def test_connections_beyond_the_limit_are_closed(self) -> None:
        self.end(self.gateway)
        self.start_gateway("--grpc", "127.0.0.1:0", "--connections", "2")

        def greeting(peer: socket.socket) -> bytes:
            with contextlib.suppress(ConnectionResetError):
                return peer.recv(9)
            return b""

        where = ("127.0.0.1", int(self.port("serves gRPC on")))
        with socket.create_connection(where) as first, socket.create_connection(where) as second:
            self.assertTrue(greeting(first) and greeting(second))
            with socket.create_connection(where) as third:
                self.assertEqual(greeting(third), b"")
            second.close()

            def look() -> bytes:
                with socket.create_connection(where) as third:
                    return greeting(third)

            self.assertTrue(eventually(look))

    def test_peers_of_an_encrypted_gateway_trust_its_certificate(self) -> None:
        make = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=kelm"
        names = ("-addext", "subjectAltName=IP:127.0.0.1", "-keyout", "key", "-out", "cert")
        subprocess.run((*make.split(), *names), cwd=self.work, check=True, stderr=subprocess.PIPE)
        self.end(self.gateway)
        files = ("--tls-cert", f"{self.work}/cert", "--tls-key", f"{self.work}/key")
        listen = ("--rest", f"unix:{self.work}/r", "--grpc", "127.0.0.1:0", "--drain", "0")
        with open(self.work / "gateway.log", "w") as log:
            gateway = self.start(os.environ["KELM_GATEWAY"], "--models", str(self.models), *listen,
                                 *files, stderr=log)
        trust = grpc.ssl_channel_credentials((self.work / "cert").read_bytes())
        address = f"127.0.0.1:{self.port('serves gRPC on')}"
        self.connect(address)
        plain = lambda: self.stub.ServerLive(inference.ServerLiveRequest())
        self.assertEqual(self.code_of(plain), "UNAVAILABLE")
        key = (self.work / "key").read_text()
        for text, said in (("no key", "keeps the certificate"), (key, "has read its certificate")):
            (self.work / "key").write_text(text)
            gateway.send_signal(signal.SIGHUP)
            log = self.work / "gateway.log"
            self.assertTrue(eventually(lambda: said in log.read_text()), said)
            with grpc.secure_channel(address, trust) as channel:
                stub = open_inference_pb2_grpc.GRPCInferenceServiceStub(channel)
                self.assertTrue(stub.ServerLive(inference.ServerLiveRequest()).live)
        self.end(gateway)


if __name__ == "__main__":
    unittest.main()
