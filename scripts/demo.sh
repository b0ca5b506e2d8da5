#!/usr/bin/env bash
# Builds the service and runs its main job on simulated devices: four client processes, two graphs,
# about ten seconds, then the table of what they got and the exit status of the service.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/packages.sh
echo "building ..."
{ cmake --preset release && cmake --build --preset release --target kelmdaemon kelmctl; } \
    >build-demo.log 2>&1 || { tail -n 60 build-demo.log; exit 1; }
rm -f build-demo.log

work=$(mktemp -d)
daemon=""
finish() {
    [ -z "$daemon" ] || kill -KILL "$daemon" 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT

export KELM_INSTALL_DIR=$work/install KELM_RUN_DIR=$work/run HOME=$work
mkdir -p "$KELM_INSTALL_DIR/config" "$KELM_RUN_DIR"
cat >"$KELM_INSTALL_DIR/config/kelm_service.config" <<CONFIG
{
    "security_settings": { "user_group": "" },
    "fake_device_settings": { "enable_fake_device": true, "fake_device_number": 3 }
}
CONFIG
# Simulated devices take any bytes for a graph; two files with different contents are two graphs.
head -c 1000000 /dev/urandom >"$work/detector.graph"
head -c 3000000 /dev/urandom >"$work/classifier.graph"

bin=$PWD/build/release
(cd "$work" && exec "$bin/kelmdaemon") >"$work/service.log" 2>&1 &
daemon=$!
"$bin/kelmctl" wait-ready --timeout 20 || { cat "$work/service.log"; exit 1; }
"$bin/kelmctl" bench --clients 4 --depth 8 --seconds "${1:-10}" \
    --graph "$work/detector.graph" --graph "$work/classifier.graph"

kill -USR1 "$daemon"
status=0
wait "$daemon" || status=$?
daemon=""
echo "the service has ended with status $status"
exit $status
