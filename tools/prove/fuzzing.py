"""Looking for inputs, and what of the parsers the kept ones reach."""

import json
import os
import re
import subprocess
from pathlib import Path
from typing import List

from host import ROOT, Campaign

FUZZ = ROOT / "build/fuzz/tests/fuzz"
COVERAGE = ROOT / "build/coverage"
CORPUS = ROOT / "tests/fuzz/corpus"
GROWN = ROOT / "build/corpus"  # what runs have found, from one to the next
TARGETS = ("service", "client", "message", "config", "snapshot", "trace", "gateway")
LEAST_COVERAGE = 90.0
WORKERS = 2

PARSERS = (
    "protocol/src/KelmProtocol.cpp",
    "protocol/src/KelmReceive.cpp",
    "protocol/src/MessageAssembler.cpp",
    "protocol/src/MessageTable.cpp",
    "utils/ConfigParser.cpp",
    "utils/ConfigText.cpp",
    "utils/platform/linux/ReceiveBufferLinux.cpp",
    "service/src/config/ServiceConfigParser.cpp",
    "client/DecodeSnapshot.cpp",
    "client/DecodeStatus.cpp",
    "tools/kelmctl/ConfigCheck.cpp",
    "tools/kelmctl/ConfigFile.cpp",
    "tools/kelmctl/LocatedJson.cpp",
    "tools/kelmctl/TraceCommand.cpp",
    "tools/kelmctl/TraceJson.cpp",
    "tools/kelmctl/TraceNames.cpp",
    "tools/kelmctl/TracePairs.cpp",
    "tools/kelmctl/TraceReader.cpp",
    "tools/kelmctl/TraceRow.cpp",
    "tools/gateway/ModelDescription.cpp",
    "tools/gateway/grpc/InferMessage.cpp",
    "tools/gateway/rest/InferBody.cpp",
    "tools/gateway/rest/JsonTensor.cpp",
)


def fuzz(campaign: Campaign, target: str) -> None:
    grown = GROWN / target
    grown.mkdir(parents=True, exist_ok=True)
    seed = campaign.random.randrange(1, 1 << 31)
    command = [
        str(FUZZ / f"fuzz_{target}"),
        f"-jobs={WORKERS}",
        f"-workers={WORKERS}",
        "-print_final_stats=1",
        f"-max_total_time={int(campaign.seconds) or 1}",
        f"-seed={seed}",
        "-max_len=4096",
        "-timeout=120",
        "-rss_limit_mb=4096",
        f"-artifact_prefix={grown.parent}/{target}-",
        str(grown),
        str(CORPUS / target),
    ]
    environment = {**os.environ, "TMPDIR": "/dev/shm"}
    log = campaign.work / "log"
    with open(log, "wb") as file:
        status = subprocess.run(command, cwd=campaign.work, stdout=file, stderr=file,
                                env=environment, check=False).returncode
    # One log for each worker.
    text = "".join(path.read_text(encoding="utf-8", errors="replace")
                   for path in campaign.work.glob("fuzz-*.log"))
    executed = re.findall(r"number_of_executed_units: (\d+)", text)
    campaign.runs = sum(map(int, executed))
    ends = re.findall(r"DONE +cov: (\d+) ft: \d+ corp: (\d+)", text)
    if ends:
        campaign.tell(f"edges {max(int(end[0]) for end in ends)}, inputs kept {ends[0][1]}")
    if status != 0:
        finds = [line for line in text.splitlines() if "Test unit written" in line]
        campaign.find(f"status {status}: {' '.join(finds[-1:]) or text[-500:]}")


def coverage(campaign: Campaign) -> None:
    """Of the regions of each parser, by the kept inputs and those that runs have found."""
    profiles: List[Path] = []
    binaries = [COVERAGE / f"tests/fuzz/fuzz_{target}" for target in TARGETS]
    for target, binary in zip(TARGETS, binaries):
        inputs = [path for path in (CORPUS / target, GROWN / target) if path.is_dir()]
        profile = campaign.work / f"{target}.profraw"
        environment = {**os.environ, "LLVM_PROFILE_FILE": str(profile)}
        with open(campaign.work / f"{target}.log", "wb") as log:
            done = subprocess.run([binary, *inputs], stdout=log, stderr=log, env=environment,
                                  check=False)
        campaign.require(done.returncode == 0, f"{target}: an input ends with {done.returncode}")
        campaign.runs += sum(len(list(path.iterdir())) for path in inputs)
        profiles.append(profile)
    merged = campaign.work / "all.profdata"
    subprocess.run(["llvm-profdata", "merge", "-sparse", "-o", merged, *profiles], check=True)
    objects = [word for binary in binaries[1:] for word in ("-object", str(binary))]
    told = subprocess.run(
        ["llvm-cov", "export", "-summary-only", f"-instr-profile={merged}", binaries[0], *objects],
        check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    rows = {os.path.realpath(row["filename"]): row["summary"]["regions"]["percent"]
            for row in json.loads(told.stdout)["data"][0]["files"]}
    for parser in PARSERS:
        percent = rows.get(str(ROOT / parser), 0.0)
        campaign.tell(f"{parser} {percent:.1f} %")
        campaign.require(percent > LEAST_COVERAGE, f"{parser}: {percent:.1f} % of the regions")
