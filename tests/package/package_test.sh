#!/usr/bin/env bash
# Installs a build into a fresh prefix and uses it as a stranger would: builds the examples by CMake
# and by pkg-config, and runs them against the installed service on simulated devices.
#
#   package_test.sh BUILD_DIR
set -euo pipefail
build=$1
source=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
service=""
finish() {
    [ -z "$service" ] || kill -KILL "$service" 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT
fail() { echo "package: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
[ -e "$prefix/include/kelm/kelm.h" ] || fail "kelm.h was not installed"
[ ! -e "$prefix/include/kelm/client" ] || fail "headers that are no interface were installed"

libraries=$(dirname "$(find "$prefix" -name libkelm.so)")
export PKG_CONFIG_PATH=$libraries/pkgconfig
read -ra flags < <(pkg-config --cflags --libs kelm)
cc -std=c11 -Wall -Wextra -Wpedantic -Werror "$source/examples/camera.c" "${flags[@]}" \
    -o "$work/camera_shared"
if ldd "$work/camera_shared" | grep -E 'boost|usb|crypto'; then fail "it drags libraries along"; fi
cmake -S "$source/tests/package" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DEXAMPLES="$source/examples" >/dev/null
cmake --build "$work/build" >/dev/null

export KELM_INSTALL_DIR=$prefix KELM_RUN_DIR=$work/run HOME=$work LD_LIBRARY_PATH=$libraries
mkdir "$KELM_RUN_DIR"
echo '{"fake_device_settings": {"enable_fake_device": true}}' >"$work/.kelm_service.config"
"$prefix/bin/kelmdaemon" >"$work/log" 2>&1 &
service=$!
"$prefix/bin/kelmctl" wait-ready
echo graph >"$work/graph"
for program in camera_shared build/camera_c build/camera_cpp; do
    said=$("$work/$program" "$work/graph" 200)
    [ "$said" = "200 of 200 frames" ] || fail "$program said: $said"
done
kill -USR1 "$service"
wait "$service" || fail "the service ended with status $?"
service=""
