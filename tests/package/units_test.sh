#!/bin/sh
# The service manager's files, looked at by its own tools: units_test.sh SOURCE_DIR BUILD_DIR
set -eu
files=$1/packaging/systemd
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for unit in kelmdaemon.service kelmdaemon-sim@.service kelm-exporter.service kelm-gateway.service; do
    sed "s|/usr/lib/kelm/bin|$2|" "$files/$unit" > "$work/$unit"
    # Words that it does not know are only warned of, and would be of no effect.
    complaints=$(systemd-analyze verify --recursive-errors=no "$work/$unit" 2>&1) || true
    test -z "$complaints" || { echo "$complaints"; exit 1; }
    report=$(systemd-analyze security --no-pager --offline=true --threshold=20 "$work/$unit") ||
        { echo "$report"; exit 1; }
    echo "$report" | tail -n 1
done

# The account's directory and rights, in a root of their own.
mkdir -p "$work/root/etc" "$work/root/run"
systemd-sysusers --root="$work/root" "$files/kelm.sysusers"
grep -q '^kelm:' "$work/root/etc/passwd"
grep -q '^kelm:' "$work/root/etc/group"
systemd-tmpfiles --root="$work/root" --create "$files/kelm.tmpfiles"
test "$(stat -c %a "$work/root/run/kelm")" = 750
