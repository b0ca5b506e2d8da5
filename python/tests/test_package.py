"""Structs, loading and whole programs: what shows in a process of its own."""

import os
import pathlib
import re
import signal
import subprocess
import sys
import unittest

import kelm
from kelm import _structs
from service import Service, eventually

ROOT = pathlib.Path(__file__).resolve().parents[2]
START = """
import asyncio, os, sys, threading, kelm
client = kelm.Client()
graph = client.load_graph(b"graph")
pool = graph.pool()
slots = [pool.acquire() for _ in range(8)]
def run(done=lambda slot, result: None):
    for slot in slots: graph.submit(slot, done)
"""
# A program that goes on after START; its exit status, and words of its error output.
PROGRAMS = {
    "close is forgotten": ("graph.infer(slots[0])", 0, ""),
    "tasks run at the end": ("run()", 0, ""),
    "views live at the end": ("run(); view = slots[0].input; slots[0].release()", 0, ""),
    "a child of fork ends": (
        "run(); pid = os.fork()\nif pid: os.waitpid(pid, 0)\nelse: client.close()",
        0,
        "",
    ),
    "a child of fork infers": (
        "pid = os.fork()\nif not pid: graph.infer(bytes(36000))\n"
        "status = os.waitpid(pid, 0)[1]; graph.infer(slots[0]); sys.exit(status != 0)",
        1,
        "KelmNotConnectedError: the graph was closed",
    ),
    "a callback raises": (
        "def done(slot, result): raise LookupError('mine')\nrun(done)\n"
        "while True: client.dispatch(1)",
        1,
        "LookupError: mine",
    ),
    "a callback closes": (
        "left = set(slots)\ndef done(slot, result): left.discard(slot); client.close()\nrun(done)\n"
        "while client.connected: client.dispatch(1)\nsys.exit(len(left))",
        0,
        "",
    ),
    "Ctrl-C in dispatch": ("print('ready', flush=True)\nclient.dispatch(None)", None, "Interrupt"),
    "Ctrl-C in a loop": (
        "async def lane(slot):\n    while True: await graph.infer_async(slot)\n"
        "async def main(): await asyncio.gather(*map(lane, slots))\n"
        "print('ready', flush=True)\nasyncio.run(main())",
        None,
        "Interrupt",
    ),
    "Ctrl-C in snapshots": (
        "print('ready', flush=True)\nfor snapshot in client.snapshots(): pass",
        None,
        "Interrupt",
    ),
}


class StructTest(unittest.TestCase):
    def test_structs_are_those_of_the_header(self) -> None:
        program = subprocess.run([os.environ["KELM_LAYOUT"]], capture_output=True, check=True)
        told = dict(line.split(" ", 1) for line in program.stdout.decode().splitlines())
        for name, kind in _structs.STRUCTS.items():
            self.assertEqual(told[name], str(_structs.ctypes.sizeof(kind)), name)
            for field, _ in kind._fields_:
                place = getattr(kind, field)
                self.assertEqual(told[f"{name}.{field}"], f"{place.offset} {place.size}")
        header = (ROOT / "kelm/kelm.h").read_text()
        self.assertEqual(set(re.findall(r"^struct (\w+) \{", header, re.M)), set(_structs.STRUCTS))


class ProgramTest(unittest.TestCase):
    def setUp(self) -> None:
        self.service = Service()
        self.addCleanup(self.service.remove)

    def start(self, *arguments: str, **environment: str) -> subprocess.Popen:
        return subprocess.Popen(
            [sys.executable, *arguments],
            cwd=self.service.dir,
            env={**self.service.environment, "PYTHONWARNINGS": "ignore", **environment},
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )

    def test_a_library_that_does_not_fit_is_one_error(self) -> None:
        for path, words in (
            ("/nowhere/libkelm.so.1", "install kelmdaemon's client library or set KELM_LIBRARY"),
            (os.environ["KELM_OTHER_VERSION"], "has version 2.0.0, and this package needs 1.x"),
        ):
            with self.subTest(path):
                program = self.start("-c", "import kelm", KELM_LIBRARY=path)
                error = program.communicate(timeout=60)[1]
                self.assertIn("KelmLibraryError", error)
                self.assertIn(words, error)

    def test_programs_end_and_leave_nothing_behind(self) -> None:
        for name, (source, status, words) in PROGRAMS.items():
            with self.subTest(name):
                program = self.start("-c", START + source)
                if status is None:
                    self.assertEqual(program.stdout.readline(), "ready\n")
                    program.send_signal(signal.SIGINT)
                output, error = program.communicate(timeout=60)
                if status is not None:
                    self.assertEqual(program.returncode, status, error)
                self.assertIn(words, error)
                self.assertEqual(error if not words else "", "")
                left = pathlib.Path("/dev/shm").glob(f"kelm-{program.pid}-*")
                self.assertEqual(list(left), [])
        with kelm.Client(self.service.socket) as client:
            self.assertTrue(eventually(lambda: client.status().client_count == 1))
        log = self.service.stop()
        self.assertEqual(log.count(") registered:"), log.count(") unregistered:"))

    def test_the_camera_gets_each_frame_once(self) -> None:
        (self.service.dir / "detector.graph").write_bytes(b"any bytes")
        camera = self.start(str(ROOT / "examples/camera.py"), "detector.graph", "200")
        self.assertEqual(camera.communicate(timeout=60), ("200 of 200 frames\n", ""))


if __name__ == "__main__":
    unittest.main()
