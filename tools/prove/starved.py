"""The service without what it needs: the right error, and recovery without a restart."""

import contextlib
import os
import resource
import subprocess
import time
from pathlib import Path
from typing import Iterator, Optional

from campaigns import settle
from host import (
    BIN,
    PATIENCE,
    SEGMENTS,
    Campaign,
    Checkers,
    Client,
    Found,
    Service,
    cpu_seconds,
    wait_for,
    write_graphs,
)

SHIM = BIN / "tools/prove/libkelm-prove-shim.so"
STARVE_SECONDS = 1.5
MOST_CPU = 0.5  # of a core, for a service that starves and has four clients of 1 ms
DAY = 86400
SCARCITY = 60
LARGE = 64 << 20  # bytes of a graph for which there is no memory


def write_controls(path: Path, seconds: int, no_threads: int, scarcity: int) -> None:
    """For the shim, in place: it has the file mapped."""
    if not path.exists():
        path.write_bytes(bytes(24))
    with open(path, "r+b") as file:
        for number in (seconds, no_threads, scarcity):
            file.write(number.to_bytes(8, "little", signed=True))


class Starving:
    """Four clients that check every result, and a newcomer under each want."""

    def __init__(self, campaign: Campaign) -> None:
        self.campaign = campaign
        self.graphs = write_graphs(campaign.work, micros=4000)
        self.large = campaign.work / "large"
        self.large.write_bytes(b"KELMSIM input=500 output=500\n" + bytes(LARGE))
        self.disk = campaign.work / "service"
        self.disk.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16m", "tmpfs", self.disk], check=True)
        self.service = Service(campaign, on_bus=False, fake_device_settings={
            "load_tensor_latency": 2, "get_result_latency": 2}, debug_settings={
            "dump_graph": "on", "dump_graph_path": str(self.disk), "enable_tracer": True})
        self.controls = campaign.work / "shim"
        self.set_shim(0, False)
        self.service.start(LD_PRELOAD=str(SHIM), KELM_PROVE_SHIM=str(self.controls))
        self.checkers = Checkers(campaign, 4, self.graphs[:4], "--unchecked")
        self.checkers.wait_until_all_gain("at first")

    def set_shim(self, seconds: int, no_threads: bool) -> None:
        """Read by the shim at each of its calls."""
        write_controls(self.controls, seconds, int(no_threads), 0)

    def newcomer(self, graph: Path) -> int:
        """Status of a client that connects, loads, and runs some tasks."""
        client = Client(self.campaign, "newcomer", [graph], "--unchecked", "--tasks", "20",
                        "--deadline-ms", "3000")
        try:
            status = client.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.campaign.find(f"a newcomer hangs: {client.show()}")
            client.kill()
            return -1
        self.said = client.said()
        return status

    def check(self, what: str, want: "contextlib.AbstractContextManager[None]",
              fails: bool, words: str = "", graph: Optional[Path] = None) -> None:
        """Under the want the others go on, a newcomer gets an error if it `fails`; then all is as
        before."""
        campaign, service = self.campaign, self.service
        campaign.runs += 1
        try:
            with want:
                begin, cpu = time.monotonic(), cpu_seconds(service.pid)
                status = self.newcomer(graph or self.graphs[5 + campaign.runs % 10])
                self.checkers.wait_until_all_gain(f"with {what}")
                time.sleep(max(0.0, STARVE_SECONDS - (time.monotonic() - begin)))
                used = (cpu_seconds(service.pid) - cpu) / (time.monotonic() - begin)
                said = self.said
            campaign.require(used < MOST_CPU, f"{what}: {used:.0%} of a core")
            campaign.require(not fails or status not in (0, -1), f"{what}: no error")
            campaign.require(words in said, f"{what}: '{said}' does not tell of {words}")
            wait_for(f"a newcomer is served after {what}",
                     lambda: self.newcomer(self.graphs[5]) == 0)
            self.checkers.wait_until_all_gain(f"after {what}")
            campaign.tell(f"{what}: newcomer's status {status} {said[:110]!r}, "
                          f"{used:.0%} of a core")
        except Found as found:
            campaign.find(f"{what}: {found}")
        except OSError as error:
            campaign.find(f"{what}: {error}: {service.last_lines()}")
        if not service.is_running():
            raise Found(f"the service has ended with {what}: {service.last_lines()}")

    # ---- What may be wanting ---------------------------------------------------------------

    @contextlib.contextmanager
    def limited(self, which: int, soft: int) -> Iterator[None]:
        usual, _ = resource.prlimit(self.service.pid, which)
        self.service.limit(which, soft)
        yield
        self.service.limit(which, usual)

    @contextlib.contextmanager
    def no_threads(self) -> Iterator[None]:
        self.set_shim(0, True)
        yield
        self.set_shim(0, False)

    @contextlib.contextmanager
    def jumped(self, seconds: int) -> Iterator[None]:
        self.set_shim(seconds, False)
        yield
        self.set_shim(0, False)

    @contextlib.contextmanager
    def full(self, directory: Path) -> Iterator[None]:
        filler = directory / "filler"
        with open(filler, "wb", buffering=0) as file:
            size = 1 << 20
            while size > 0:
                try:
                    if file.write(bytes(size)) < size:
                        size //= 2
                except OSError:
                    size //= 2
        yield
        filler.unlink()

    def memory_kb(self) -> int:
        status = Path(f"/proc/{self.service.pid}/status").read_text(encoding="ascii")
        for line in status.splitlines():
            if line.startswith("VmSize"):
                return int(line.split()[1])
        raise Found("the service has no size")


def starved(campaign: Campaign, limit: int) -> None:
    starving = None
    try:
        starving = Starving(campaign)
        service = starving.service
        while campaign.more(limit):
            used = len(os.listdir(f"/proc/{service.pid}/fd"))
            room = campaign.random.randint(0, 3)
            starving.check(f"{room} descriptors left",
                           starving.limited(resource.RLIMIT_NOFILE, used + room), room == 0)
            starving.check("no threads", starving.no_threads(), True, "out of memory")
            kilobytes = starving.memory_kb() + campaign.random.choice((0, 64, 1024))
            starving.check("no memory", starving.limited(resource.RLIMIT_AS, kilobytes * 1024),
                           True, "out of memory", graph=starving.large)
            starving.check("a full disk", starving.full(starving.disk), False)
            starving.check("a full /dev/shm", starving.full(SEGMENTS), True, "make it larger")
            for seconds in (DAY, -DAY, 3600, -3600):
                starving.check(f"a clock that jumps by {seconds} s", starving.jumped(seconds),
                               False)
        starving.checkers.finish()
        service.stop()
    finally:
        if starving is not None:
            starving.service.close()
            subprocess.run(["umount", "-l", starving.disk], check=False)


def scarce(campaign: Campaign, limit: int) -> None:
    """One `new` in 60 finds no memory, while clients come and go: whoever is hit is told."""
    graphs = write_graphs(campaign.work, micros=500)
    service = Service(campaign, on_bus=False, fake_device_settings={
        "load_tensor_latency": 0, "get_result_latency": 0})
    controls = campaign.work / "shim"
    write_controls(controls, 0, 0, 0)
    refused = 0
    try:
        service.start(LD_PRELOAD=str(SHIM), KELM_PROVE_SHIM=str(controls))
        checkers = Checkers(campaign, 4, graphs[:4], "--unchecked", "--reconnect", "--patient")
        checkers.wait_until_all_gain("at first")
        before = service.settled_figures()
        write_controls(controls, 0, 0, SCARCITY)
        while campaign.more(limit) and service.is_running():
            campaign.runs += 1
            graph = graphs[campaign.random.randrange(4, len(graphs))]
            client = Client(campaign, "newcomer", [graph], "--unchecked", "--tasks", "20",
                            "--deadline-ms", "8000")
            try:
                refused += client.process.wait(PATIENCE) != 0
            except subprocess.TimeoutExpired:
                campaign.find(f"a newcomer hangs: {client.show()}")
                client.kill()
            told = client.counts.unanswered == 0 and "TIMEOUT" not in client.said()
            if not told:
                campaign.find(f"a newcomer is not told: {client.show()}: {service.keep_log()}")
            client.drop()
        write_controls(controls, 0, 0, 0)
        if not service.is_running():
            raise Found(f"the service has ended: {service.keep_log()}")
        checkers.wait_until_all_gain("with memory again")
        settle(campaign, service, before, "with memory again")
        lost = checkers.sum("lost")
        checkers.finish(may_fail=True, may_lose=True)
        campaign.require(checkers.sum("unanswered") == 0, f"not told: {checkers.show()}")
        campaign.tell(f"{refused} newcomers refused, {checkers.sum('right')} results of the others "
                      f"right, {lost} lost with their connections")
        service.stop()
    finally:
        service.close()
