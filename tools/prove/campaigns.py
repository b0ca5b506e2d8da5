"""The campaigns on clients, devices, the service's own end, and a long time."""

import math
import signal
import subprocess
import threading
import time
from pathlib import Path
from typing import Dict, List, NamedTuple, Sequence, Tuple

import kelm

from host import (
    BIN,
    PATIENCE,
    PORTS,
    Campaign,
    Checkers,
    Client,
    Figures,
    Found,
    Service,
    dead_segments,
    percentiles,
    wait_for,
    write_graphs,
)

MEMORY_SLACK_KB = 24 * 1024
HOUR = 3600.0


def settle(campaign: Campaign, service: Service, before: Figures, what: str) -> None:
    """The service must come back to what it held before; memory within a slack."""
    holds = lambda: all(now <= then for now, then in zip(service.figures()[:2], before))
    try:
        wait_for("descriptors and threads as before", holds)
    except Found as found:
        campaign.find(f"{what}: {found}: before {before}, now {service.figures()}")
    grown = service.figures().resident_kb - before.resident_kb
    campaign.require(grown < MEMORY_SLACK_KB, f"{what}: memory has grown by {grown} kB")
    campaign.tell(f"before {before}; after {service.figures()}")


class Victims:
    """Clients that are killed, or stopped and then killed, at a random moment of their lives."""

    AT_ONCE = 4
    LONGEST_LIFE = 0.12  # seconds; connecting and loading takes about half of it

    def __init__(self, campaign: Campaign, graphs: Sequence[Path]) -> None:
        self.campaign, self.graphs = campaign, graphs
        self.alive: List[Tuple[float, bool, Client]] = []  # when, whether to stop it first
        self.moments: Dict[str, int] = {"connecting": 0, "loading": 0, "in flight": 0}
        self.born = 0
        self.dead = 0

    def step(self) -> None:
        random = self.campaign.random
        while len(self.alive) < self.AT_ONCE:
            graphs = random.sample(self.graphs, random.randint(1, 2))
            options = ["--depth", str(random.randint(1, 8)), "--deadline-ms", "5000"]
            client = Client(self.campaign, "victim", graphs, *options)
            moment = time.monotonic() + random.uniform(0, self.LONGEST_LIFE)
            self.alive.append((moment, random.random() < 0.3, client))
            self.born += 1
        now = time.monotonic()
        for entry in [entry for entry in self.alive if entry[0] <= now]:
            self.alive.remove(entry)
            _, stops, client = entry
            if stops:
                client.process.send_signal(signal.SIGSTOP)
                self.alive.append((now + random.uniform(0, 0.5), False, client))
            else:
                self.end(client)

    def end(self, client: Client) -> None:
        counts = client.counts
        moment = "in flight" if counts.taken else "loading"
        self.moments[moment if client.counts.taken or counts.loaded else "connecting"] += 1
        client.kill()
        client.drop()
        self.dead += 1

    def end_all(self) -> None:
        for _, _, client in self.alive:
            self.end(client)
        self.alive = []


def clients_killed(campaign: Campaign, limit: int) -> None:
    graphs = write_graphs(campaign.work, micros=1000)
    service = Service(campaign, on_bus=True)
    try:
        service.start()
        checkers = Checkers(campaign, 4, graphs[:4])
        checkers.wait_until_all_gain("at first")
        quiet_rate = checkers.rate(min(5, campaign.seconds / 6))
        # The first victims make the service's caches as large as they become.
        victims = Victims(campaign, graphs)
        while victims.dead < 40 and campaign.left() > 0:
            victims.step()
            time.sleep(0.002)
        victims.end_all()
        before = service.settled_figures()
        begin, right = time.monotonic(), checkers.sum("right")
        while campaign.more(limit):
            victims.step()
            campaign.runs = victims.dead
            time.sleep(0.002)
        rate = (checkers.sum("right") - right) / (time.monotonic() - begin)
        victims.end_all()
        campaign.runs = victims.dead
        campaign.tell(f"killed while {victims.moments}")
        campaign.tell(f"rate of the others {rate:.0f}/s, {quiet_rate:.0f}/s when quiet")
        checkers.wait_until_all_gain("behind the victims")
        settle(campaign, service, before, "after the victims")
        checkers.finish()
        last = Client(campaign, "last", graphs[:1], "--seconds", "1")  # removes what dead ones left
        campaign.require(last.process.wait(PATIENCE) == 0, f"a later client: {last.show()}")
        campaign.require(not dead_segments(), f"segments are left: {dead_segments()[:5]}")
        campaign.tell(f"results checked {checkers.sum('right')}, wrong {checkers.sum('wrong')}")
        service.stop()
    finally:
        service.close()


class Watch:
    """Looks at the devices by the status, and at the rate, all the time; its own thread."""

    def __init__(self, checkers: Checkers) -> None:
        self.checkers = checkers
        self.client = kelm.Client(name="watch")
        self.serving: Dict[str, float] = {}
        self.rates: List[Tuple[float, int]] = []
        self.ends = threading.Event()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self) -> None:
        while not self.ends.is_set():
            try:
                devices = self.client.status(deadline=5).devices
            except kelm.KelmError:
                continue
            self.serving = {row.name: row.rate for row in devices if row.rate > 0}
            self.rates.append((time.monotonic(), self.checkers.sum("right")))
            del self.rates[:-4000]
            self.ends.wait(0.005)

    def serves(self, port: str) -> bool:
        return any(port in name for name in self.serving)

    def rate(self, seconds: float) -> float:
        """Of the last seconds."""
        rows = list(self.rates)
        since = [row for row in rows if row[0] >= rows[-1][0] - seconds]
        return (since[-1][1] - since[0][1]) / max(since[-1][0] - since[0][0], 0.001)

    def close(self) -> None:
        self.ends.set()
        self.thread.join()
        self.client.close()


class DeviceCycles:
    """Devices that leave and come back, one way or another."""

    def __init__(
        self, campaign: Campaign, service: Service, watch: Watch, graphs: Sequence[Path]
    ) -> None:
        self.campaign, self.service, self.watch = campaign, service, watch
        self.graphs = graphs
        self.first_results: List[float] = []
        self.full_rates: List[float] = []
        self.ways: Dict[str, int] = {}

    def cycle(self) -> None:
        random = self.campaign.random
        way = random.choice(("measured", "plain", "two at once", "mid-load", "mid-reset", "faults"))
        self.ways[way] = self.ways.get(way, 0) + 1
        ports = random.sample(PORTS, 2 if way == "two at once" else 1)
        loading = None
        if way == "mid-load":
            loading = Client(self.campaign, "loading", [random.choice(self.graphs[8:])],
                             "--patient", "--seconds", "1")
            time.sleep(random.uniform(0, 0.1))
        elif way == "mid-reset":
            with subprocess.Popen([str(BIN / "kelmctl"), "reset", ports[0]],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as reset:
                time.sleep(random.uniform(0, 0.1))
                self.unplug(ports, measured=False)
                reset.wait(4 * PATIENCE)
        elif way == "faults":
            self.service.command(f"faults {random.randrange(1 << 30)}")
            time.sleep(random.uniform(0.1, 0.5))
        if way != "mid-reset":
            self.unplug(ports, way == "measured")
        for port in ports:
            self.service.command(f"plug {port}")
        plugged = time.monotonic()
        if way == "faults":
            time.sleep(random.uniform(0, 0.3))
            self.service.command("orders")
        self.wait_until_all_serve(way)
        if way == "measured":
            self.first_results.append(time.monotonic() - plugged)
        if loading is not None:
            loading.expect_good_end()

    def unplug(self, ports: List[str], measured: bool) -> None:
        full = self.watch.rate(1.0) * (len(PORTS) - 1) / len(PORTS)
        for port in ports:
            self.service.command(f"unplug {port}")
        begin = time.monotonic()
        time.sleep(self.campaign.random.uniform(0, 0.2))
        if measured:
            wait_for("an unplugged device is not listed any more",
                     lambda: not self.watch.serves(ports[0]))
            wait_for("90 % of the rate of the devices that are left",
                     lambda: time.monotonic() - begin > 0.2 and self.watch.rate(0.2) > 0.9 * full)
            self.full_rates.append(time.monotonic() - begin)

    def wait_until_all_serve(self, way: str) -> None:
        wait_for(f"all devices serve after {way}",
                 lambda: all(self.watch.serves(port) for port in PORTS), 3 * PATIENCE)


def devices_lost(campaign: Campaign, limit: int) -> None:
    graphs = write_graphs(campaign.work, micros=4000)
    service = Service(campaign, on_bus=True)
    watch = None
    try:
        service.start()
        checkers = Checkers(campaign, 4, graphs[:4], "--depth", "6")
        checkers.wait_until_all_gain("at first")
        watch = Watch(checkers)
        cycles = DeviceCycles(campaign, service, watch, graphs)
        cycles.wait_until_all_serve("the start")
        before = service.figures()
        while campaign.more(limit):
            campaign.runs += 1
            cycles.cycle()
        watch.close()
        settle(campaign, service, before, "after the cycles")
        checkers.finish(may_fail=True)
        campaign.tell(f"cycles {cycles.ways}")
        campaign.tell(f"tasks {checkers.sum('taken')}, right {checkers.sum('right')}, "
                      f"failed {checkers.sum('failed')}, wrong {checkers.sum('wrong')}")
        campaign.tell(f"from plug to first result: {percentiles(cycles.first_results)}")
        campaign.tell("from unplug to the end of 0.2 s at the rest's full rate: "
                      + percentiles(cycles.full_rates))
        service.stop()
    finally:
        if watch is not None:
            watch.close()
        service.close()


def service_killed(campaign: Campaign, limit: int) -> None:
    graphs = write_graphs(campaign.work, micros=1000)
    service = Service(campaign, on_bus=True)
    starts, returns = [], []
    try:
        service.start()
        checkers = Checkers(campaign, 4, graphs[:4], "--reconnect", "--patient")
        checkers.wait_until_all_gain("at first")
        while campaign.more(limit):
            campaign.runs += 1
            if campaign.random.random() < 0.2:  # also while it starts
                service.kill()
                service.spawn()
                time.sleep(campaign.random.uniform(0, 0.15))
            else:
                time.sleep(campaign.random.uniform(0, 0.3))
            service.kill()
            starts.append(service.start())
            returns.append(checkers.wait_until_all_gain("after a fresh start"))
        campaign.tell(f"from start to ready: {percentiles(starts)}")
        campaign.tell(f"from ready to results of all clients: {percentiles(returns)}")
        checkers.finish(may_lose=True)
        campaign.tell(f"right {checkers.sum('right')}, wrong {checkers.sum('wrong')}, "
                      f"ended by a kill {checkers.sum('lost')}")
        service.stop()
    finally:
        service.close()


def stopped(campaign: Campaign, limit: int) -> None:
    graphs = write_graphs(campaign.work, micros=1000)
    service = Service(campaign, on_bus=True)
    random = campaign.random
    stops, states = [], {"starting": 0, "serving": 0}
    try:
        checkers = Checkers(campaign, 3, graphs[:3], "--reconnect", "--patient")
        victims = Victims(campaign, graphs)
        while campaign.more(limit):
            campaign.runs += 1
            early = random.random() < 0.3
            if early:
                service.spawn()
                wait_for("the service takes signals", service.takes_signals)
            else:
                service.start()
            states["starting" if early else "serving"] += 1
            if random.random() < 0.3:
                service.command(f"faults {random.randrange(1 << 30)}")
            end = time.monotonic() + random.uniform(0, 0.3)
            while time.monotonic() < end:
                victims.step()
                if random.random() < 0.05:
                    service.command(f"{random.choice(('plug', 'unplug'))} {random.choice(PORTS)}")
                if random.random() < 0.01:
                    reset = [str(BIN / "kelmctl"), "reset", "--timeout", "1", "--all"]
                    with subprocess.Popen(reset, stdout=subprocess.DEVNULL,
                                          stderr=subprocess.DEVNULL):
                        pass
                time.sleep(0.004)
            try:
                stops.append(service.stop())
            except Found as found:
                campaign.find(str(found))
        victims.end_all()
        service.start()
        checkers.wait_until_all_gain("in the end")
        checkers.finish(may_fail=True, may_lose=True)
        service.stop()
        campaign.tell(f"stopped while {states}, from signal to end: {percentiles(stops)}")
    finally:
        service.close()


class Slope(NamedTuple):
    """Of the line through some points, with its standard error; both an hour."""

    value: float
    error: float

    @staticmethod
    def of(rows: Sequence[Tuple[float, float]]) -> "Slope":
        """By least squares, through three points at least."""
        count = len(rows)
        mean_x = sum(x for x, _ in rows) / count
        mean_y = sum(y for _, y in rows) / count
        spread = sum((x - mean_x) ** 2 for x, _ in rows)
        value = sum((x - mean_x) * (y - mean_y) for x, y in rows) / spread
        rest = sum((y - mean_y - value * (x - mean_x)) ** 2 for x, y in rows)
        return Slope(value * HOUR, math.sqrt(rest / (count - 2) / spread) * HOUR)

    def is_above(self, bound: float) -> bool:
        """Whether noise alone does not explain it: short runs have steep lines."""
        return self.value - 2 * self.error > bound


class Growth:
    """What the service holds, looked at again and again."""

    # An hour has about a hundred million tasks: more than this is no noise of the allocator.
    MOST_MEMORY_SLOPE_KB = 4 * 1024
    MOST_NUMBER_SLOPE = 8
    # Less than this in a half is none: a short run is still warming up.
    LEAST_MEMORY_KB = 512
    LEAST_NUMBER = 4
    EVERY = 10.0  # seconds; in a short run more often, so that there is a line

    def __init__(self, campaign: Campaign, service: Service) -> None:
        self.campaign, self.service = campaign, service
        self.every = min(self.EVERY, campaign.seconds / 60)
        self.rows: List[Tuple[float, Figures]] = []

    def look(self) -> None:
        """Does nothing if the last look was just now."""
        now = time.monotonic()
        if not self.rows or now - self.rows[-1][0] >= self.every:
            self.rows.append((now, self.service.figures()))

    def judge(self) -> None:
        rows = self.rows[len(self.rows) // 10:]  # behind the first growth
        if len(rows) < 6:
            self.campaign.find("too short a run to tell a slope")
            return
        numbers = ("", self.MOST_NUMBER_SLOPE, self.LEAST_NUMBER)
        memory = (" kB", self.MOST_MEMORY_SLOPE_KB, self.LEAST_MEMORY_KB)
        for name, (unit, most, least) in (("descriptors", numbers), ("threads", numbers),
                                          ("resident_kb", memory)):
            points = [(when, float(getattr(figures, name))) for when, figures in rows]
            slope = Slope.of(points)
            what = "memory" if unit else name
            told = f"{slope.value:+.1f}{unit} an hour, give or take {slope.error:.1f}"
            # Queues and caches become as large as they ever need to be in a step; a leak goes on.
            half = len(points) // 2
            grows = all(Slope.of(part).is_above(most) and part[-1][1] - part[0][1] >= least
                        for part in (points[:half], points[half:]))
            self.campaign.require(not grows, f"{what} grow by {told}, in both halves above {most}")
            self.campaign.tell(f"{what} {points[0][1]:.0f}{unit} to {points[-1][1]:.0f}{unit}, "
                               f"slope {told}, {len(points)} looks")


def day(campaign: Campaign, limit: int) -> None:
    """`limit` is a number of tasks."""
    graphs = write_graphs(campaign.work, micros=0)
    latencies = {name: 0 for name in
                 ("alloc_graph_latency", "load_tensor_latency", "get_result_latency")}
    service = Service(campaign, on_bus=False, fake_device_settings={
        **latencies, "latency_distribution_stddev": 0.0})
    random = campaign.random
    passers: List[Tuple[float, Client]] = []
    past = 0
    try:
        service.start()
        options = ("--unchecked", "--depth", "32")
        stay = Checkers(campaign, 3, graphs[:1], *options)
        stay.wait_until_all_gain("at first")
        growth = Growth(campaign, service)
        begin = time.monotonic()
        while campaign.left() > 0 and campaign.runs < limit:
            if len(passers) < 2:
                client = Client(campaign, "passer", graphs[:1], *options)
                passers.append((time.monotonic() + random.uniform(0.3, 3), client))
            for leaves, client in [row for row in passers if row[0] <= time.monotonic()]:
                passers.remove((leaves, client))
                client.expect_good_end()
                past += client.counts.right
                client.drop()
            growth.look()
            campaign.runs = past + stay.sum("right")
            time.sleep(0.2)
        seconds = time.monotonic() - begin
        for _, client in passers:
            client.expect_good_end()
            past += client.counts.right
        # One stays until the graph's count has been read, since the graph ends with its last user.
        for client in stay.clients:
            client.process.send_signal(signal.SIGSTOP)
        own = 0
        keeper = kelm.Client(name="keeper")
        kept = keeper.load_graph(str(graphs[0]))
        for client in stay.clients:
            client.expect_good_end()
            own += client.counts.right
        campaign.runs = past + own
        with keeper.snapshots() as snapshots:
            for _ in range(2):  # the first may be of before
                snapshot = next(iter(snapshots))
        told = [row.inferences for row in snapshot.graphs]
        campaign.require(told == [past + own],
                         f"the service counts {told} tasks, the clients {past + own}")
        kept.close()
        keeper.close()
        growth.judge()
        campaign.tell(f"{campaign.runs / seconds:.0f} tasks/s; counts agree" if told == [past + own]
                      else "counts differ")
        service.stop()
    finally:
        service.close()
