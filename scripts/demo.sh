#!/usr/bin/env bash
# Builds the service and runs its main job for about ten seconds: four client processes, two graphs,
# then the table of what they got and the exit status of the service.
#
#   scripts/demo.sh [SECONDS]                   on simulated devices inside the service
#   scripts/demo.sh --accelerators [SECONDS]    in real mode, on simulated accelerators on a mock USB
#                                               bus: one is unplugged and plugged in again under load,
#                                               and every result is checked bit by bit
#   scripts/demo.sh --cluster [SECONDS]         three nodes on such accelerators, each with a gateway,
#                                               behind HAProxy: one is drained and restarted and one
#                                               loses its accelerators, and no request fails
set -euo pipefail
cd "$(dirname "$0")/.."

accelerators=false
cluster=false
if [ "${1:-}" = "--accelerators" ]; then accelerators=true; shift; fi
if [ "${1:-}" = "--cluster" ]; then accelerators=true cluster=true; shift; fi
seconds=${1:-10}

targets=(kelmdaemon kelmctl)
packages=()
if $accelerators; then
    targets+=(tevo-kelm ion autoboot kelm-usb-bus kelm-sim-load)
    packages+=(umockdev libumockdev-dev)
fi
if $cluster; then
    targets+=(kelm-gateway kelm-infer-load)
    packages+=(haproxy)
fi
./scripts/packages.sh "${packages[@]}"
echo "building ..."
{ cmake --preset release && cmake --build --preset release --target "${targets[@]}"; } \
    >build-demo.log 2>&1 || { tail -n 60 build-demo.log; exit 1; }
rm -f build-demo.log
bin=$PWD/build/release
simulator=$bin/tools/simulator
if $cluster; then exec /usr/bin/python3 -B scripts/cluster.py demo "$bin" "$seconds"; fi

work=$(mktemp -d)
service=""
finish() {
    [ -z "$service" ] || kill -KILL "$service" 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT

export KELM_INSTALL_DIR=$work/install KELM_RUN_DIR=$work/run HOME=$work
mkdir -p "$KELM_INSTALL_DIR/bin" "$KELM_INSTALL_DIR/config" "$KELM_RUN_DIR"

# The contents of the configuration.
configure() {
    echo "{ \"security_settings\": { \"user_group\": \"\" }, $1 }" \
        >"$KELM_INSTALL_DIR/config/kelm_service.config"
}

# A graph of so many bytes, with a first line for the simulator; any bytes are a graph.
graph() { # file, line, bytes
    { echo "$2"; head -c "$3" /dev/urandom; } >"$work/$1"
}

wait_ready() {
    "$bin/kelmctl" wait-ready --timeout 20 || { cat "$work/service.log"; exit 1; }
}

run_on_simulated_devices() {
    configure '"fake_device_settings": { "enable_fake_device": true, "fake_device_number": 3 }'
    (cd "$work" && exec "$bin/kelmdaemon") >"$work/service.log" 2>&1 &
    service=$!
    wait_ready
    "$bin/kelmctl" bench --clients 4 --depth 8 --seconds "$seconds" \
        --graph "$work/detector.graph" --graph "$work/classifier.graph"
}

run_on_accelerators() {
    configure '"fake_device_settings": { "enable_fake_device": false }'
    ln -s "$simulator/autoboot" "$KELM_INSTALL_DIR/bin/autoboot"
    mkfifo "$work/bus"
    (cd "$work" && exec "$simulator/kelm-usb-bus" --dir "$work/simulator" \
        --device 1.1 --device 1.2 --device 1.3.1 -- "$bin/kelmdaemon") \
        <"$work/bus" >"$work/service.log" 2>&1 &
    service=$!
    exec 3>"$work/bus"
    wait_ready

    local clients=() number
    for number in 1 2 3 4; do
        "$simulator/kelm-sim-load" --name "client-$number" --depth 3 --seconds "$seconds" \
            --graph "$work/detector.graph" --graph "$work/classifier.graph" \
            >"$work/client-$number" 2>"$work/errors-$number" &
        clients+=($!)
    done
    local third
    third=$(awk "BEGIN { print $seconds / 3 }")
    sleep "$third"
    echo "unplugging 1.2"
    echo "unplug 1.2" >&3
    sleep "$third"
    echo "plugging 1.2 in again"
    echo "plug 1.2" >&3
    sleep "$(awk "BEGIN { print $third / 2 }")"
    "$bin/kelmctl" status
    local client
    for client in "${clients[@]}"; do wait "$client" || wrong=1; done

    printf '%-12s %10s %6s %7s %10s %10s %13s\n' client right wrong failed unanswered \
        'per second' 'slowest in ms'
    cat "$work"/client-* "$work"/errors-*
    [ "$wrong" -ne 0 ] || echo "every result is right"
}

graph detector.graph "KELMSIM input=150528 output=4000 memory=24 micros=3000" 1000000
graph classifier.graph "KELMSIM input=4096 output=40000 memory=40 micros=2000" 3000000
wrong=0
if $accelerators; then run_on_accelerators; else run_on_simulated_devices; fi

kill -USR1 "$service"
status=0
wait "$service" || status=$?
service=""
echo "the service has ended with status $status"
exit $((status != 0 ? status : wrong))
