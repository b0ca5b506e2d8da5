"""What the campaigns share: a service with directories of its own, its devices, and its clients."""

import ctypes
import json
import mmap
import os
import random
import resource
import select
import shutil
import signal
import subprocess
import time
from pathlib import Path
from typing import Any, Callable, Dict, List, NamedTuple, Optional, Sequence

ROOT = Path(__file__).resolve().parents[2]
BIN = ROOT / "build/release"
SIMULATOR = BIN / "tools/simulator"
SEGMENTS = Path("/dev/shm")
PATIENCE = 20.0  # seconds, for anything that has no limit of its own
STOP_LIMIT = 10.0
PORTS = ("1.1", "1.2", "1.3", "1.4.1")
GRAPHS = 24


class Found(Exception):
    """Something that does not hold; ends a campaign only where nothing more can be learnt."""


class Variant(NamedTuple):
    devices: str
    tasks: str

    def __str__(self) -> str:
        return f"{self.devices}/{self.tasks}"


class Campaign:
    """What one run of a campaign may use, and what it has to tell."""

    def __init__(self, name: str, work: Path, seed: int, seconds: float, variant: Variant) -> None:
        self.name, self.work, self.variant = name, work, variant
        self.random = random.Random(f"{seed} {name} {variant}")
        self.seconds = seconds
        self.end = time.monotonic() + seconds
        self.runs = 0
        self.found: List[str] = []
        self.figures: List[str] = []
        work.mkdir(parents=True)

    def left(self) -> float:
        return self.end - time.monotonic()

    def more(self, limit: int) -> bool:
        """Whether there is time for a further run, and need of one."""
        return self.runs < limit and self.left() > 0

    def find(self, text: str) -> None:
        self.found.append(text)
        print(f"  {self.name}: FOUND after {self.runs} runs: {text}", flush=True)

    def require(self, holds: bool, text: str) -> None:
        if not holds:
            self.find(text)

    def tell(self, text: str) -> None:
        self.figures.append(text)
        print(f"  {self.name}: {text}", flush=True)


def wait_for(what: str, condition: Callable[[], Any], limit: float = PATIENCE) -> float:
    """The seconds until the condition held."""
    begin = time.monotonic()
    while not condition():
        if time.monotonic() - begin > limit:
            raise Found(f"{what} not within {limit:.0f} s")
        time.sleep(0.002)
    return time.monotonic() - begin


def percentiles(seconds: Sequence[float]) -> str:
    if not seconds:
        return "none measured"
    ordered = sorted(seconds)
    marks = ((50, "median"), (95, "95 %"), (99, "99 %"), (100, "longest"))
    place = lambda mark: ordered[min(len(ordered) - 1, len(ordered) * mark // 100)]
    return ", ".join(f"{name} {place(mark) * 1000:.0f} ms" for mark, name in marks)


class Figures(NamedTuple):
    descriptors: int
    threads: int
    resident_kb: int

    @staticmethod
    def of(pid: int) -> "Figures":
        names = []
        for entry in os.listdir(f"/proc/{pid}/fd"):
            try:
                names.append(os.readlink(f"/proc/{pid}/fd/{entry}"))
            except OSError:
                continue  # closed meanwhile
        status = Path(f"/proc/{pid}/status").read_text(encoding="ascii")
        values = dict(line.split(":", 1) for line in status.splitlines() if ":" in line)
        return Figures(
            sum(not name.endswith("thread.info") for name in names),
            int(values["Threads"]),
            int(values["VmRSS"].split()[0]),
        )

    def __str__(self) -> str:
        return f"{self.descriptors} fds, {self.threads} threads, {self.resident_kb / 1024:.0f} MB"


def cpu_seconds(pid: int) -> float:
    fields = Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def write_graphs(directory: Path, micros: int) -> List[Path]:
    """Different ones, with a first line for the simulator."""
    paths = []
    for number in range(GRAPHS):
        sizes = f"input={500 + 97 * number} output={3000 - 80 * number}"
        line = f"KELMSIM {sizes} memory=9 micros={micros}"
        path = directory / f"graph-{number}"
        path.write_bytes(f"{line}\ngraph {number}".encode() + bytes(1000 * number))
        paths.append(path)
    return paths


class Service:
    """A service of this build; on accelerators of the simulator, or on devices within itself."""

    def __init__(self, campaign: Campaign, on_bus: bool, **sections: Any) -> None:
        self.campaign, self.on_bus = campaign, on_bus
        self.directory = campaign.work / "service"
        self.process: Optional["subprocess.Popen[bytes]"] = None
        self.starts = 0
        for name in ("install/bin", "install/config", "run", "path"):
            (self.directory / name).mkdir(parents=True, exist_ok=True)
        self.run = self.directory / "run"
        self._write_stub()
        os.symlink(SIMULATOR / "autoboot", self.directory / "install/bin/autoboot")
        config: Dict[str, Any] = {
            "security_settings": {"user_group": ""},
            "service_settings": {"task_scheduler": campaign.variant.tasks},
            "device_settings": {"shared_scheduler": campaign.variant.devices},
            "fake_device_settings": {"enable_fake_device": not on_bus},
        }
        for section, values in sections.items():
            config.setdefault(section, {}).update(values)
        config_path = self.directory / "install/config/kelm_service.config"
        config_path.write_text(json.dumps(config), encoding="ascii")
        self.environment = {
            **os.environ,
            "KELM_INSTALL_DIR": str(self.directory / "install"),
            "KELM_RUN_DIR": str(self.run),
            "HOME": str(self.directory),
            "PATH": f"{self.directory / 'path'}:{os.environ['PATH']}",
        }
        os.environ["KELM_RUN_DIR"] = str(self.run)  # of the clients, too

    def _write_stub(self) -> None:
        """The service ends boot tools by their name; here only its own may be meant."""
        stub = self.directory / "path/pkill"
        stub.write_text(
            "#!/bin/sh\nfor process in /proc/[0-9]*; do\n"
            f'    [ "$(readlink $process/exe)" = {SIMULATOR / "autoboot"} ] || continue\n'
            f"    grep -qs {self.directory} $process/environ && kill ${{process#/proc/}}\n"
            "done\n",
            encoding="ascii",
        )
        stub.chmod(0o755)

    # ---- Life --------------------------------------------------------------------------------

    def spawn(self, **environment: str) -> None:
        """Does not wait until it is ready."""
        self.starts += 1
        command = [str(BIN / "kelmdaemon")]
        if self.on_bus:
            bus = [str(SIMULATOR / "kelm-usb-bus"), "--dir", str(self.directory / "simulator")]
            for port in PORTS:
                bus += ["--device", port]
            command = bus + ["--"] + command
        with open(self.directory / "log", "wb") as log:
            self.process = subprocess.Popen(
                command,
                cwd=self.directory,
                stdin=subprocess.PIPE,
                stdout=log,
                stderr=log,
                env={**self.environment, **environment},
            )

    def start(self, **environment: str) -> float:
        """The seconds until it was ready."""
        begin = time.monotonic()
        self.spawn(**environment)
        wait = [str(BIN / "kelmctl"), "wait-ready", "--timeout", str(int(PATIENCE))]
        done = subprocess.run(wait, env=self.environment, stdout=subprocess.DEVNULL, check=False)
        if done.returncode != 0:
            raise Found(f"not ready within {PATIENCE:.0f} s: {self.last_lines()}")
        return time.monotonic() - begin

    @property
    def pid(self) -> int:
        """Of the service itself; 0 while there is none."""
        assert self.process is not None
        if not self.on_bus:
            return self.process.pid
        path = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        try:
            children = [int(word) for word in path.read_text(encoding="ascii").split()]
            for child in children:
                if os.path.basename(os.readlink(f"/proc/{child}/exe")) == "kelmdaemon":
                    return child
        except OSError:
            pass
        return 0

    def takes_signals(self) -> bool:
        """Whether SIGUSR1 is more than the end of the process."""
        try:
            text = Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
        except OSError:
            return False
        values = dict(line.split(":", 1) for line in text.splitlines() if ":" in line)
        # The C library blocks all signals for moments of its own, the service this one only.
        blocked, caught = int(values["SigBlk"], 16), int(values["SigCgt"], 16)
        usr1, usr2 = (1 << (number - 1) for number in (signal.SIGUSR1, signal.SIGUSR2))
        return self.pid != 0 and ((blocked & usr1 and not blocked & usr2) or caught & usr1) != 0

    def stop(self) -> float:
        """The seconds that it took, of the service alone and not of its bus; it must end in order."""
        assert self.process is not None
        end = os.pidfd_open(self.pid)
        begin = time.monotonic()
        signal.pidfd_send_signal(end, signal.SIGUSR1)
        has_ended = select.select([end], [], [], STOP_LIMIT)[0]
        took = time.monotonic() - begin
        os.close(end)
        if not has_ended:
            text = self.keep_log()
            self.kill()
            raise Found(f"not ended within {STOP_LIMIT:.0f} s of SIGUSR1: {text}")
        status = self.process.wait(PATIENCE)
        if status != 0:
            raise Found(f"ended with status {status}: {self.keep_log()}")
        return took

    def kill(self) -> None:
        assert self.process is not None
        if self.process.poll() is None:
            if self.pid:
                os.kill(self.pid, signal.SIGKILL)
            try:
                self.process.wait(2)
            except subprocess.TimeoutExpired:
                self.process.kill()
        self.process.wait()

    def close(self) -> None:
        """Ends what may be left, also of a run that has ended early."""
        if self.process is not None:
            self.kill()
            subprocess.run([self.directory / "path/pkill"], check=False)

    def is_running(self) -> bool:
        return self.process is not None and self.process.poll() is None

    # ---- What it holds and says --------------------------------------------------------------

    def figures(self) -> Figures:
        return Figures.of(self.pid)

    def settled_figures(self) -> Figures:
        """The least of some moments: what ends is not counted."""
        rows = []
        for _ in range(20):
            rows.append(self.figures())
            time.sleep(0.1)
        return Figures(*(min(column) for column in zip(*rows)))

    def keep_log(self) -> str:
        """The next start writes it anew. Its last lines."""
        kept = self.directory / f"log-{time.monotonic_ns()}"
        shutil.copyfile(self.directory / "log", kept)
        return f"{self.last_lines()} ({kept})"

    def last_lines(self) -> str:
        lines = (self.directory / "log").read_bytes()[-1500:].decode("utf-8", "replace")
        return " | ".join(lines.splitlines()[-4:])

    def limit(self, which: int, soft: int) -> None:
        _, hard = resource.prlimit(self.pid, which)
        resource.prlimit(self.pid, which, (soft, hard))

    def command(self, line: str) -> None:
        """To the bus."""
        assert self.process is not None and self.process.stdin is not None
        self.process.stdin.write((line + "\n").encode())
        self.process.stdin.flush()


class Counts(ctypes.Structure):
    """As tools/prove/Counts.h."""

    NAMES = ("taken", "right", "wrong", "failed", "lost", "unanswered", "refused", "twice",
             "reconnects", "loaded")
    _fields_ = [(name, ctypes.c_uint64) for name in NAMES]


class Client:
    """A client as a process that counts how its tasks end."""

    number = 0

    def __init__(
        self, campaign: Campaign, name: str, graphs: Sequence[Path], *options: str
    ) -> None:
        Client.number += 1
        self.campaign = campaign
        self.name = f"{name}-{Client.number}"
        self.path = campaign.work / self.name
        with open(self.path, "wb") as file:
            file.truncate(ctypes.sizeof(Counts))
        with open(self.path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), ctypes.sizeof(Counts))
        self.counts = Counts.from_buffer(self.memory)
        command = [str(BIN / "tools/prove/kelm-prove-client"), "--name", self.name]
        command += ["--counts", str(self.path), *options]
        for graph in graphs:
            command += ["--graph", str(graph)]
        self.errors = open(f"{self.path}.log", "w+b")  # pylint: disable=consider-using-with
        # It inherits this, and lets the signal in once it knows what to do then.
        before = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})
        self.process = subprocess.Popen(command, stdout=self.errors, stderr=self.errors)
        signal.pthread_sigmask(signal.SIG_SETMASK, before)

    def finish(self) -> int:
        """Ends it in order; its status."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.process.terminate()
        try:
            return self.process.wait(3 * PATIENCE)
        except subprocess.TimeoutExpired:
            self.campaign.find(f"{self.name} does not end: {self.show()}")
            self.kill()
            return -1

    def expect_good_end(self) -> None:
        status = self.finish()
        if status != 0:
            self.campaign.find(f"{self.name} has ended with status {status}: {self.show()}")

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def drop(self) -> None:
        """Its files; for one that has ended."""
        self.errors.close()
        self.path.unlink()
        Path(f"{self.path}.log").unlink()

    def said(self) -> str:
        self.errors.flush()
        return Path(self.errors.name).read_text(encoding="utf-8", errors="replace").strip()

    def show(self) -> str:
        counts = {name: getattr(self.counts, name) for name in Counts.NAMES}
        return f"{ {name: count for name, count in counts.items() if count} } {self.said()}"


class Checkers:
    """Some clients at work that check every result, and must go on."""

    def __init__(
        self, campaign: Campaign, count: int, graphs: Sequence[Path], *options: str
    ) -> None:
        self.campaign = campaign
        self.clients = [
            Client(campaign, "checker", [graphs[i % len(graphs)]], *options) for i in range(count)
        ]

    def sum(self, name: str) -> int:
        return sum(getattr(client.counts, name) for client in self.clients)

    def wait_until_all_gain(self, what: str, limit: float = PATIENCE) -> float:
        """The seconds until each has got a result since now."""
        before = [client.counts.right for client in self.clients]
        gained = lambda: all(c.counts.right > b for c, b in zip(self.clients, before))
        return wait_for(f"results of all clients {what}", gained, limit)

    def rate(self, seconds: float) -> float:
        begin, before = time.monotonic(), self.sum("right")
        time.sleep(seconds)
        return (self.sum("right") - before) / (time.monotonic() - begin)

    def finish(self, may_fail: bool = False, may_lose: bool = False) -> None:
        for client in self.clients:
            client.expect_good_end()
        self.campaign.require(may_fail or self.sum("failed") == 0, f"failed tasks: {self.show()}")
        self.campaign.require(may_lose or self.sum("lost") == 0, f"lost tasks: {self.show()}")
        self.campaign.require(self.sum("right") > 0, "no result at all")

    def show(self) -> str:
        return "; ".join(client.show() for client in self.clients)

    def kill(self) -> None:
        for client in self.clients:
            client.kill()


def dead_segments() -> List[str]:
    """Shared memory of clients that have ended."""
    names = [name for name in os.listdir(SEGMENTS) if name.startswith("kelm-")]
    return [name for name in names if not os.path.exists(f"/proc/{name.split('-')[1]}")]
