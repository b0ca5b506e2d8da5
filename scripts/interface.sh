#!/usr/bin/env bash
# Checks what others can see of libkelm in a release build: its names, what it depends on, and that
# programs which were built with an earlier version still fit.
#
#   scripts/interface.sh [BUILD_DIR]            check; build/release by default
#   scripts/interface.sh --update [BUILD_DIR]   keep the interface of now as what programs rely on
set -euo pipefail
cd "$(dirname "$0")/.."

update=false
if [ "${1:-}" = "--update" ]; then update=true; shift; fi
build=${1:-build/release}
kept=libkelm/libkelm.abi
found=$(mktemp)
trap 'rm -f "$found"' EXIT

complain() { echo "interface: $*" >&2; exit 1; }

abidw --exported-interfaces-only --headers-dir kelm --drop-private-types --no-show-locs \
    --no-comp-dir-path --no-corpus-path "$build/libkelm.so.1" --out-file "$found"
if $update; then
    cp "$found" "$kept"
    exit 0
fi

foreign=$(nm -D --defined-only "$build/libkelm.so.1" | awk '$2 != "A" { print $3 }' |
    grep -v '^kelm_' || true)
[ -z "$foreign" ] || complain "libkelm.so.1 shows names that are not its interface: $foreign"
foreign=$(nm --defined-only --extern-only "$build/libkelm.a" | awk 'NF == 3 { print $3 }' |
    grep -v '^kelm_' || true)
[ -z "$foreign" ] || complain "libkelm.a shows names that are not its interface: $foreign"
foreign=$(nm -C "$build/libkelm.so.1" "$build/libkelm.a" | grep -E ' (boost::|libusb_|EVP_|SHA)' |
    head -n 3 || true)
[ -z "$foreign" ] || complain "libkelm brings foreign code along: $foreign"
foreign=$(readelf -d "$build/libkelm.so.1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
    grep -vE '^(libstdc\+\+|libgcc_s|libc|libm|ld-linux.*)\.so' || true)
[ -z "$foreign" ] || complain "libkelm.so.1 needs libraries that it should not: $foreign"
abidiff "$kept" "$found" || complain \
    "the interface has changed as told above. Additions: scripts/interface.sh --update. Changes of what is there: undo them, or make a libkelm.so.2"
