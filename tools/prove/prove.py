"""Part of prove.sh: runs the campaigns and ends with their table."""

import argparse
import atexit
import os
import random
import signal
import subprocess
import sys
import tempfile
import time
import traceback
from pathlib import Path
from typing import Callable, Dict, List, NamedTuple

import campaigns
import fuzzing
import races
from host import Campaign, Found, Variant
from starved import scarce, starved

VARIANTS = (Variant("squeeze2", "polling"), Variant("adaptive", "balanced"))
FULL_MINUTES = 300.0


class Row(NamedTuple):
    run: Callable[[Campaign], None]
    minutes: float  # of a full run
    limit: int  # runs after which it is enough; 0: none
    variants: bool  # whether it depends on the schedulers: each pair gets its share


def limited(run: Callable[[Campaign, int], None], limit: int) -> Callable[[Campaign], None]:
    return lambda campaign: run(campaign, limit // len(VARIANTS))


CAMPAIGNS: Dict[str, Row] = {
    "clients-killed": Row(limited(campaigns.clients_killed, 10000), 15, 10000, True),
    "devices-lost": Row(limited(campaigns.devices_lost, 1000), 30, 1000, True),
    "service-killed": Row(limited(campaigns.service_killed, 500), 12, 500, True),
    "starved": Row(limited(starved, 180), 8, 180, True),
    "scarce": Row(limited(scarce, 2000), 8, 2000, True),
    "stopped": Row(limited(campaigns.stopped, 2000), 25, 2000, True),
    "day": Row(limited(campaigns.day, 100_000_000), 60, 100_000_000, True),
    "races": Row(races.races, 15, 0, False),
    **{f"fuzz-{target}": Row(lambda campaign, target=target: fuzzing.fuzz(campaign, target), 30, 0,
                             False) for target in fuzzing.TARGETS},
    "coverage": Row(fuzzing.coverage, 1, 0, False),
}


class Outcome(NamedTuple):
    name: str
    runs: str
    found: List[str]
    figures: List[str]
    seconds: float


def run(name: str, variant: Variant, minutes: float, seed: int, work: Path) -> Outcome:
    row = CAMPAIGNS[name]
    title = f"{name} ({variant})" if row.variants else name
    print(f"{title}: {minutes:.1f} minutes", flush=True)
    directory = work / title.translate(str.maketrans("/ ", "--", "()"))
    campaign = Campaign(name, directory, seed, minutes * 60, variant)
    begin = time.monotonic()
    try:
        row.run(campaign)
    except Found as found:
        campaign.find(str(found))
    except Exception:  # pylint: disable=broad-except
        # Whatever it is, the other campaigns still tell something.
        campaign.find(traceback.format_exc())
    if campaign.runs == 0:
        campaign.find("nothing was run")
    return Outcome(title, str(campaign.runs), campaign.found, campaign.figures,
                   time.monotonic() - begin)


def print_table(outcomes: List[Outcome]) -> None:
    width = max(len(outcome.name) for outcome in outcomes)
    print(f"\n{'campaign':{width}}  {'runs':>11}  {'time':>6}  found  verdict")
    for outcome in outcomes:
        verdict = "fails" if outcome.found else "holds"
        print(f"{outcome.name:{width}}  {outcome.runs:>11}  {outcome.seconds:>4.0f} s  "
              f"{len(outcome.found):>5}  {verdict}")
        for text in outcome.figures:
            print(f"    {text}")
        for text in outcome.found:
            print(f"    FOUND: {text}")


def end_children() -> None:
    """Clients that are left, when the run is ended early."""
    for thread in Path("/proc/self/task").iterdir():
        for child in (thread / "children").read_text(encoding="ascii").split():
            os.kill(int(child), signal.SIGKILL)


def main() -> int:
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit(128 + number))
    atexit.register(end_children)
    parser = argparse.ArgumentParser(prog="prove.sh", description=__doc__)
    parser.add_argument("minutes", type=float, nargs="?", default=FULL_MINUTES,
                        help="of all that is run together; the usual ones are a full run")
    parser.add_argument("--only", action="append", choices=list(CAMPAIGNS), metavar="NAME",
                        help=f"one of {', '.join(CAMPAIGNS)}; may be given again")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 31))
    parser.add_argument("--device-scheduler", help="squeeze2 or adaptive; without: both in turn")
    parser.add_argument("--task-scheduler", help="polling or balanced; without: both in turn")
    parser.add_argument("--keep", action="store_true", help="logs and counts")
    options = parser.parse_args()
    names = options.only or list(CAMPAIGNS)
    share = options.minutes / sum(CAMPAIGNS[name].minutes for name in names)
    variants = VARIANTS
    if options.device_scheduler or options.task_scheduler:
        variants = tuple(dict.fromkeys(
            Variant(options.device_scheduler or variant.devices,
                    options.task_scheduler or variant.tasks) for variant in VARIANTS))
    print(f"seed {options.seed}", flush=True)
    work = Path(tempfile.mkdtemp(prefix="kelm-prove-"))
    outcomes = []
    for name in names:
        row = CAMPAIGNS[name]
        for variant in variants if row.variants else variants[:1]:
            minutes = row.minutes * share / (len(variants) if row.variants else 1)
            outcomes.append(run(name, variant, minutes, options.seed, work))
    print_table(outcomes)
    print(f"seed {options.seed}")
    has_found = any(outcome.found for outcome in outcomes)
    if options.keep or has_found:
        print(f"kept: {work}")
    else:
        subprocess.run(["rm", "-rf", work], check=False)
    return 1 if has_found else 0


if __name__ == "__main__":
    sys.exit(main())
