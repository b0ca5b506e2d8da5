#!/usr/bin/env bash
# Starts and stops the installed service again and again under the load of clients that reconnect, on
# simulated devices, and looks for what stays behind; see restarts.py.
#
#   scripts/restarts.sh [N]     1000 times
set -euo pipefail
cd "$(dirname "$0")/.."

# Directories of its own, where nobody else leaves anything.
if [ "${KELM_RESTARTS:-}" != inside ]; then
    ./scripts/packages.sh
    echo "building ..."
    { cmake --preset release && cmake --build --preset release --target kelmdaemon kelmctl kelm; } \
        >build-restarts.log 2>&1 || { tail -n 60 build-restarts.log; exit 1; }
    rm -f build-restarts.log
    spaces=(--mount)
    [ "$(id -u)" -eq 0 ] || spaces+=(--map-root-user)
    unshare "${spaces[@]}" true || { echo "restarts: name spaces are not allowed here" >&2; exit 77; }
    KELM_RESTARTS=inside exec unshare "${spaces[@]}" "scripts/${0##*/}" "$@"
fi
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /var/tmp

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
install -D build/release/kelmdaemon build/release/kelmctl -t "$work/install/bin"
mkdir -p "$work/install/config" "$work/run"
echo '{ "security_settings": { "user_group": "" },
        "fake_device_settings": { "enable_fake_device": true } }' \
    >"$work/install/config/kelm_service.config"
echo graph >"$work/graph"
export KELM_INSTALL_DIR=$work/install KELM_RUN_DIR=$work/run HOME=$work TMPDIR=$work
export KELM_LIBRARY=$PWD/build/release/libkelm.so.1 PYTHONPATH=$PWD/python
python3 scripts/restarts.py "${1:-1000}" "$work/graph"
