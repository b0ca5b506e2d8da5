#!/usr/bin/env bash
# Puts the service under stress and tells in a table whether anything was lost; see
# docs/reliability.md. Status 0 only if all that is claimed holds. Needs root, or name spaces.
#
#   scripts/prove.sh [MINUTES] [--only NAME]... [--seed N]
#                    [--device-scheduler NAME] [--task-scheduler NAME] [--keep]
#
# MINUTES are those of all campaigns together, each gets its share; 300 are a full run.
set -euo pipefail
cd "$(dirname "$0")/.."

# Directories of its own, where nobody else leaves anything.
if [ "${KELM_PROVE:-}" != inside ]; then
    case " $* " in *" --help "* | *" -h "*) exec sed -nE '2,/^set /s/^# ?//p' "scripts/${0##*/}" ;; esac
    ./scripts/packages.sh clang llvm python3 umockdev libumockdev-dev >/dev/null
    build() { # preset, target...
        { cmake --preset "$1" && cmake --build --preset "$1" --target "${@:2}"; } \
            >build-prove.log 2>&1 || { tail -n 60 build-prove.log; exit 1; }
    }
    echo "building ..."
    build release kelmdaemon kelmctl kelm tevo-kelm ion autoboot kelm-usb-bus kelm-prove-client \
        kelm-prove-shim
    case " $* " in *" --only "*) only=" $* " ;; *) only=" fuzz-all coverage races " ;; esac
    case "$only" in *" fuzz-"*) build fuzz fuzz ;; esac
    case "$only" in *" coverage "*) build coverage fuzz ;; esac
    case "$only" in *" races "*)
        build release test_races
        build chaos test_utils test_tasks test_execution test_managers
        ;;
    esac
    rm -f build-prove.log
    spaces=(--mount)
    [ "$(id -u)" -eq 0 ] || spaces+=(--map-root-user)
    unshare "${spaces[@]}" true || { echo "prove: name spaces are not allowed here" >&2; exit 77; }
    KELM_PROVE=inside exec unshare "${spaces[@]}" "scripts/${0##*/}" "$@"
fi
mount -t tmpfs -o size=2g tmpfs /dev/shm
mount -t tmpfs tmpfs /var/tmp
export KELM_LIBRARY=$PWD/build/release/libkelm.so.1 PYTHONPATH=$PWD/python
exec python3 -B tools/prove/prove.py "$@"
