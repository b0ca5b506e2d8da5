"""The orders of threads that a usual run does not meet."""

import os
import re
import subprocess
from pathlib import Path
from typing import Dict, Sequence, Union

from host import ROOT, Campaign

# Held up at random moments, under ThreadSanitizer.
CHAOS = ("test_utils", "test_tasks", "test_execution", "test_managers")
PREEMPTIONS = 2
# What is tried in all orders, and the cases that do so.
SUBJECTS = {"task schedulers": "*TaskScheduler*", "device schedulers": "DeviceScheduler*"}


def run(campaign: Campaign, what: str, command: Sequence[Union[str, Path]],
        environment: Dict[str, str], limit: float) -> str:
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              env={**os.environ, **environment}, timeout=max(limit, 1), check=False)
    except subprocess.TimeoutExpired:
        return ""  # no time for all of it, which shows in the count
    text = done.stdout.decode("utf-8", "replace")
    failed = re.findall(r"^\[  FAILED  \].*|SUMMARY: .*", text, re.MULTILINE)
    campaign.require(done.returncode == 0, f"{what}: status {done.returncode} {failed[:3]}")
    return text


def try_orders(campaign: Campaign, subject: str) -> None:
    """With more and more preemptions, as far as the time goes; two thirds of it at most."""
    orders = 0
    program = ROOT / "build/release/tests/test_races"
    for preemptions in range(1, PREEMPTIONS + 1):
        text = run(campaign, f"{subject}, {preemptions} preemptions",
                   [program, f"--gtest_filter={SUBJECTS[subject]}"],
                   {"KELM_RACES": str(preemptions)}, campaign.left() - campaign.seconds / 3)
        found = sum(int(count) for count in re.findall(r"^orders: (\d+)", text, re.MULTILINE))
        if found:
            orders = found
            campaign.tell(f"{subject}, up to {preemptions} preemptions: all {found} orders")
    campaign.runs += orders
    campaign.require(orders > 0, f"{subject}: not even one preemption was tried in all orders")


def races(campaign: Campaign) -> None:
    for subject in SUBJECTS:
        try_orders(campaign, subject)
    suppressions = ROOT / "tests/third-party.tsan"
    options = {"TSAN_OPTIONS": f"halt_on_error=1:suppressions={suppressions}"}
    rounds = 0
    while campaign.left() > 0 and not campaign.found:
        program = CHAOS[rounds % len(CHAOS)]
        if run(campaign, f"{program} with chaos", [ROOT / "build/chaos/tests" / program], options,
               campaign.left()):
            rounds += 1
    campaign.runs += rounds
    campaign.tell(f"programs run under ThreadSanitizer with chaos: {rounds}")
