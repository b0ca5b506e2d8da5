#!/usr/bin/env bash
# Installs the packages, builds and runs all tests: release, AddressSanitizer with UBSan,
# ThreadSanitizer, the clang analysis build, the format check, and the Debian packages, with a service
# that is started and stopped under load. Ends with one summary line.
#
#   scripts/test.sh              everything
#   scripts/test.sh --only STEP  one of: release asan tsan clang format deb
set -uo pipefail
cd "$(dirname "$0")/.."

steps=(format release asan tsan clang deb)
if [ "${1:-}" = "--only" ]; then
    [ $# -eq 2 ] || { echo "usage: scripts/test.sh [--only STEP]" >&2; exit 2; }
    steps=("$2")
fi

./scripts/packages.sh git clang clang-format clang-tidy umockdev libumockdev-dev abigail-tools man-db \
    groff-base zsh prometheus chromium libglpk-dev haproxy openssl curl python3-grpc-tools ||
    exit 1
jobs=$(nproc)
# Many tests wait for the service more than they compute.
test_jobs=$((jobs + (jobs + 1) / 2))
# Every finding of a sanitizer is a failure.
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/third-party.tsan

build() { # preset
    cmake --preset "$1" >"build-$1.log" 2>&1 && cmake --build --preset "$1" >>"build-$1.log" 2>&1 ||
        { tail -n 60 "build-$1.log"; return 1; }
    rm -f "build-$1.log"
}

run_tests() { # preset
    build "$1" && ctest --test-dir "build/$1" --output-on-failure --no-tests=error -j "$test_jobs"
}

# Benchmarks are built and run, for a moment; their times decide nothing here.
run_benches() {
    build/release/bench/placement/placement mixes --number 20 &&
        build/release/bench/mapper_bench --benchmark_min_time=0.1 &&
        build/release/bench/service_bench --seconds 0.5 --rounds 1 &&
        build/release/bench/slow_sender_bench 1
}

# Every finding is an error; see .clang-tidy for the list of checks. The files of a folder are looked at
# several together, so that the headers are read less often; of what is generated only they are needed.
run_tidy() {
    cmake --preset tidy >/dev/null && cmake --build --preset tidy --target kelm_gateway_proto_code >/dev/null &&
        sed -nE 's/^ *"file": "(.*)",?$/\1/p' build/tidy/compile_commands.json |
        grep -vE '\.pb\.cc$|/kelm_wire\.dir/' | sort -u |
            xargs -P "$jobs" -n 1 clang-tidy -p build/tidy --quiet 2>/dev/null
}

# What may not run on a machine says so, and is no failure.
may_skip() { # command
    local status=0
    "$@" || status=$?
    [ "$status" -eq 0 ] || [ "$status" -eq 77 ]
}

run_packages() {
    ./scripts/packages.sh debhelper debootstrap dpkg-dev fakeroot lintian libumockdev-dev &&
        scripts/deb.sh >/dev/null && may_skip scripts/deb-check.sh build/packages &&
        may_skip timeout -k 10 600 scripts/systemd-check.sh build/packages && may_skip scripts/restarts.sh 50
}

run_step() { # step
    case "$1" in
        release) run_tests release && run_benches ;;
        asan | tsan) run_tests "$1" ;;
        clang) build clang && run_tidy ;;
        deb) run_packages ;;
        format) git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror ;;
        *) echo "no step '$1'" >&2; return 2 ;;
    esac
}

summary=""
status=0
for step in "${steps[@]}"; do
    echo "== $step"
    start=$SECONDS
    if run_step "$step"; then verdict=ok; else verdict=FAILED; status=1; fi
    summary+=" $step:$verdict($((SECONDS - start))s)"
done
echo "summary:$summary"
exit $status
