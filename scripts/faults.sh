#!/usr/bin/env bash
# Four clients on three simulated accelerators under a random mix of faults on the road of a task.
# Ends with a table of what they got; fails if a result was wrong, an inference had no answer, or a
# device did not serve once the faults had ended.
#
#   scripts/faults.sh [TASKS [SEED [SCHEDULER [PRESET]]]]
#
# 200000 tasks in all, from seed 1, "squeeze2" or "adaptive", programs of the preset "release"; those of
# "asan" and "tsan" find more, and take their time. The mock bus hides from the thread sanitizer that
# descriptors are closed: it reports the next ones with their numbers, and the status is 66.
set -euo pipefail
cd "$(dirname "$0")/.."

tasks=${1:-200000}
seed=${2:-1}
scheduler=${3:-squeeze2}
preset=${4:-release}
./scripts/packages.sh python3 umockdev libumockdev-dev >/dev/null
bin=$PWD/build/$preset
simulator=$bin/tools/simulator
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target kelmdaemon kelmctl tevo-kelm ion autoboot kelm-usb-bus \
    kelm-sim-load >/dev/null

work=$(mktemp -d)
service=""
finish() {
    [ -z "$service" ] || kill -KILL "$service" 2>/dev/null || true
    if [ -n "${KEEP:-}" ]; then echo "kept: $work"; else rm -rf "$work"; fi
}
trap finish EXIT

export TSAN_OPTIONS=suppressions=$PWD/tests/third-party.tsan
export KELM_INSTALL_DIR=$work/install KELM_RUN_DIR=$work/run HOME=$work
mkdir -p "$KELM_INSTALL_DIR/bin" "$KELM_INSTALL_DIR/config" "$KELM_RUN_DIR" "$work/path"
printf '#!/bin/sh\n' >"$work/path/pkill" # no boot tool but this one's is to be ended
chmod +x "$work/path/pkill"
ln -s "$simulator/autoboot" "$KELM_INSTALL_DIR/bin/autoboot"
echo '{ "security_settings": { "user_group": "" }, "device_settings": { "shared_scheduler": "'"$scheduler"'" } }' \
    >"$KELM_INSTALL_DIR/config/kelm_service.config"
for number in 1 2 3 4; do
    printf 'KELMSIM input=%d output=%d memory=9 micros=300\ngraph %d' \
        $((number * 500)) $((3000 - number * 400)) "$number" >"$work/$number.graph"
done

mkfifo "$work/bus"
(cd "$work" && PATH=$work/path:$PATH exec "$simulator/kelm-usb-bus" --dir "$work/simulator" \
    --device 1.1 --device 1.2 --device 1.3 -- "$bin/kelmdaemon") \
    <"$work/bus" >"$work/service.log" 2>&1 &
service=$!
exec 3>"$work/bus"
"$bin/kelmctl" wait-ready --timeout 20 || { cat "$work/service.log"; exit 1; }

# Each client shares one of its two graphs with the next.
clients=()
for number in 1 2 3 4; do
    "$simulator/kelm-sim-load" --name "client-$number" --depth 4 --tasks $((tasks / 4)) --failing \
        --aux --graph "$work/$number.graph" --graph "$work/$((number % 4 + 1)).graph" \
        >"$work/client-$number" 2>"$work/errors-$number" 3>&- &
    clients+=($!)
done
sleep 0.3
echo "faults $seed" >&3
status=0
for client in "${clients[@]}"; do wait "$client" || status=1; done
echo orders >&3

printf '%-12s %10s %6s %7s %10s %10s %13s\n' client right wrong failed unanswered \
    'per second' 'slowest in ms'
cat "$work"/client-*
sort -k3 "$work"/errors-* |
    awk '{ n[substr($0, index($0, "times"))] += $2 } END { for (t in n) print n[t], t }' | sort -rn
echo "resets: $(grep -c '^reset' "$work/simulator/events" || true)," \
    "graphs loaded again: $(grep -c 'is loaded again' "$work/service.log" || true)," \
    "results dropped: $(grep -c 'nobody waits for it' "$work/service.log" || true)"

# What a client leaves ends the same for all devices: each gets a graph of its own now, which keeps it
# busy.
clients=()
for number in 1 2 3; do
    printf 'KELMSIM input=500 output=500 memory=9 micros=5000\nafter %d' "$number" >"$work/last-$number.graph"
    "$simulator/kelm-sim-load" --name "after-$number" --depth 4 --seconds 6 --graph "$work/last-$number.graph" \
        >"$work/after-$number" 3>&- &
    clients+=($!)
done
idle=3
for _ in 1 2 3 4 5; do
    sleep 1
    idle=$("$bin/kelmctl" status --json | python3 -c 'import json, sys
devices = [d for line in sys.stdin for d in json.loads(line)["devices"]]
print(3 - sum(d["fps"] > 0 for d in devices))')
    [ "$idle" -ne 0 ] || break
done
for client in "${clients[@]}"; do wait "$client" || status=1; done
echo "after the faults:"
cat "$work"/after-*
echo "devices idle: $idle"
[ "$idle" -eq 0 ] || status=1

kill -USR1 "$service"
wait "$service" || status=$?
service=""
exit $status
