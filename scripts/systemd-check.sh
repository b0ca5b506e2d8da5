#!/usr/bin/env bash
# Boots systemd in a Debian root with the packages and has it do what an administrator would: start,
# use, stop, kill, misconfigure, restart under load, upgrade, remove. The host is left as it is.
#
#   scripts/systemd-check.sh [DIRECTORY]    builds the packages, or takes those that lie there
#
# Needs root, debootstrap, a mirror, and a cgroup2 hierarchy that is mounted somewhere; ends with a
# word and status 77 where it lacks one. KELM_RESTARTS is how often the service is restarted under load.
set -euo pipefail
given=${1:+$(realpath "$1")}
cd "$(dirname "$0")/.."
. scripts/debian-root.sh

[ "$(id -u)" -eq 0 ] || skip "only root may boot a Debian root; run it with sudo"
for tool in debootstrap unshare nsenter pivot_root findmnt apt-get; do
    command -v "$tool" >/dev/null || skip "$tool is missing; apt install debootstrap util-linux mount"
done
# The booted system has a control group of its own. It can be removed when all processes in it have
# ended, which the end of the name space sees to.
if [ -z "${KELM_SYSTEMD_CHECK:-}" ]; then
    groups=$(findmnt --noheadings --first-only --types cgroup2 --output TARGET) ||
        skip "no cgroup2 is mounted"
    unshare --mount --pid --uts --ipc --net --cgroup --fork true 2>/dev/null ||
        skip "name spaces are not allowed here"
    export KELM_SYSTEMD_CHECK=$groups/kelm-systemd-check-$$
    mkdir "$KELM_SYSTEMD_CHECK" 2>/dev/null || skip "no control group can be made in $groups"
    trap 'find "$KELM_SYSTEMD_CHECK" -depth -type d -exec rmdir {} +' EXIT
    status=0
    unshare --mount --pid --fork --kill-child --mount-proc "scripts/${0##*/}" "$given" || status=$?
    exit $status
fi

open_work
take_packages "$given"
make_root
mv "$packages" "$root/opt/packages"
install_dependencies systemd systemd-sysv dbus procps curl
in_root useradd --create-home --key HOME_MODE=0700 alice
in_root useradd --create-home --key HOME_MODE=0700 bob
in_root systemctl mask --quiet sys-kernel-{debug,tracing}.mount dev-hugepages.mount # the machine's
close_root

# Everything that a container manager would give it. It must not touch the machine's devices, so /sys
# is not to be written but for the control groups.
cat >"$work/boot" <<'END'
set -eu
root=$1
mount --bind "$root" "$root"
cd "$root"
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs dev
for device in null:3 zero:5 full:7 random:8 urandom:9; do
    mknod -m 666 "dev/${device%:*}" c 1 "${device#*:}"
done
mkdir dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ln -s /proc/self/fd dev/fd
for directory in dev/shm run tmp; do mount -t tmpfs -o mode=1777 tmpfs "$directory"; done
chmod 755 run
mkdir -p mnt
pivot_root . mnt
exec chroot . /bin/sh -c 'umount -l /mnt; exec env -i container=other /lib/systemd/systemd' </dev/null
END
say "booting"
sh -c 'echo $$ >"$1/cgroup.procs"; shift; exec "$@"' sh "$KELM_SYSTEMD_CHECK" \
    unshare --mount --pid --uts --ipc --net --cgroup --fork --kill-child \
    sh "$work/boot" "$root" >"$work/console" 2>&1 &
booted=$!
in_root() { # from here on in the booted system
    nsenter --target "$(pgrep -P "$booted")" --mount --pid --uts --ipc --net \
        "${root_environment[@]}" "$@"
}

patience=20
wait_for() { # what, command
    local what=$1 end=$((SECONDS + patience))
    shift
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$end" ] || fail "$what: not within $patience s"
        sleep 0.05
    done
}
has_booted() {
    ! kill -0 "$booted" || [[ $(in_root systemctl is-system-running) =~ ^(running|degraded)$ ]]
}
(wait_for "the system runs" has_booted) || { cat "$work/console"; skip "systemd does not come up here"; }
kill -0 "$booted" 2>/dev/null || { cat "$work/console"; skip "systemd does not boot here"; }

# What the manager holds about a unit; a run that ended well is "success".
about() { in_root systemctl show --property "$2" --value "$1"; } # unit, property
log_of() {
    in_root journalctl --sync
    in_root journalctl --quiet --no-pager --output=cat --unit "$@"
}
logs() { log_of "${@:2}" >"$work/journal"; grep -q "$1" "$work/journal"; } # pattern, options
expect() { # what, wanted, got
    [ "$2" = "$3" ] || fail "$1: '$3' instead of '$2'"
}
start() {
    in_root systemctl start "$1" || { log_of "$1" | tail -n 20; fail "$1 does not start"; }
}
stop() {
    local begin=$SECONDS
    in_root systemctl stop "$1"
    expect "$1 stopped" "inactive success 0" \
        "$(about "$1" ActiveState) $(about "$1" Result) $(about "$1" ExecMainStatus)"
    [ $((SECONDS - begin)) -le 9 ] || fail "$1 took $((SECONDS - begin)) s to stop"
}

say "installing; nothing starts by that"
apt install /opt/packages
expect "units that run" "" "$(in_root systemctl list-units --plain --no-legend 'kelm*')"
in_root gpasswd --add alice kelm >/dev/null
as_user alice sh -c 'umask 077; echo graph >net.graph; echo input >input'
echo 'KELM_CONFIG=--config-file /etc/kelm/kelm_simulated.config' >"$root/etc/default/kelmdaemon"

# As a member of the group uses it: graph and tensors in a home that nobody else may enter.
use() { # environment of the client
    as_user alice env "$@" kelmctl infer --graph net.graph --input input --pad --output output
    as_user alice test -s output || fail "kelmctl infer wrote nothing"
    as_user alice env "$@" kelmctl bench --seconds 0.5 --graph net.graph >"$work/log" ||
        { cat "$work/log"; fail "kelmctl bench fails"; }
    as_user alice env "$@" kelmctl doctor >"$work/log" ||
        { cat "$work/log"; fail "kelmctl doctor finds an error"; }
    ! as_user bob env "$@" kelmctl status >"$work/log" 2>&1 || fail "others than the group are let in"
}
for unit in kelmdaemon.service kelmdaemon-sim@default.service kelmdaemon-sim@spare.service; do
    say "$unit"
    start "$unit"
    expect "STATUS" "3 devices, 0 clients" "$(about "$unit" StatusText)"
    pid=$(about "$unit" MainPID)
    expect "account, rights, filter, name" "kelm 0000000000000000 1 2 kelmdaemon" "$(in_root \
        sh -c 'stat -c %U "/proc/$1" && cd "/proc/$1" && sed -n "s/^\(CapBnd\|NoNewPrivs\|Seccomp\):\t//p" status && cat comm' \
        sh "$pid" | xargs)"
    case $unit in *spare*) use KELM_RUN_DIR=/run/kelm-sim/spare ;; *) use HOME=/home/alice ;; esac
    stop "$unit"
done

say "the exporter"
start kelmdaemon-sim@default.service
start kelm-exporter.service
is_told() { [[ $(in_root curl -s http://127.0.0.1:10753/metrics) == *$'\nkelm_devices 3\n'* ]]; }
wait_for "a scrape with three devices" is_told
! in_root pgrep -u kelm -x kelmctl >/dev/null || fail "the exporter runs as the service's account"
stop kelm-exporter.service

say "the gateway"
echo graph >"$root/etc/kelm/models/graph"
cat >"$root/etc/kelm/models/net.json" <<'END'
{"graph": "graph", "inputs": [{"name": "i", "datatype": "UINT8", "shape": [36000]}],
 "outputs": [{"name": "o", "datatype": "UINT8", "shape": [4000]}], "warmup": 1}
END
echo 'KELM_GATEWAY=--drain 0 --access-log /var/log/kelm-gateway/access.log' \
    >"$root/etc/default/kelm-gateway"
start kelm-gateway.service
is_ready() { in_root curl -fs http://127.0.0.1:8000/v2/models/net/ready; }
wait_for "the model of the gateway" is_ready
! in_root pgrep -u kelm -x kelm-gateway >/dev/null || fail "the gateway runs as the service's account"
in_root mv /var/log/kelm-gateway/access.log{,.1}
in_root systemctl reload kelm-gateway.service
wait_for "a new access log" in_root test -e /var/log/kelm-gateway/access.log
stop kelm-gateway.service
in_root rm /etc/kelm/models/graph /etc/kelm/models/net.json
stop kelmdaemon-sim@default.service

say "log"
unit=kelmdaemon.service
start $unit
! as_user alice kelmctl infer --graph-by-path --graph net.graph --input input --pad --output output \
    >"$work/log" 2>&1 || fail "the service reads what is alice's"
logs net.graph $unit --priority=err || fail "the journal does not know the error as one"
! logs READY $unit --priority=err || fail "the journal takes all for errors"
logs 'SERVICE IS READY' $unit --priority=info || fail "the journal does not know READY"
! logs '^<[0-9]>' $unit || fail "the journal has not understood the priorities"

say "crashes: it comes back, until there were too many"
in_root mkdir -p "/run/systemd/system/$unit.d"
in_root sh -c "printf '[Service]\nRestartSec=100ms\n' >/run/systemd/system/$unit.d/quick.conf"
in_root systemctl daemon-reload
has_come_back() { # times
    [ "$(in_root systemctl show --property NRestarts,SubState $unit | sort | xargs)" = \
        "NRestarts=$1 SubState=running" ]
}
for number in 1 2 3 4 5; do
    in_root systemctl kill --signal=KILL $unit
    wait_for "it comes back" has_come_back "$number"
done
in_root systemctl kill --signal=KILL $unit
has_failed() { [ "$(about $unit ActiveState)" = failed ]; }
wait_for "it gives up" has_failed

say "a mistake in the configuration"
in_root systemctl reset-failed
echo '{ "log_levle": "info" }' >"$root/etc/kelm/site.config"
echo 'KELM_CONFIG=--config-file /etc/kelm/site.config' >"$root/etc/default/kelmdaemon"
! in_root systemctl start $unit >"$work/log" 2>&1 || fail "it starts all the same"
logs 'site.config.*log_levle' $unit || fail "the journal does not tell the mistake"
wait_for "it gives up" has_failed
rm "$root/etc/kelm/site.config"
echo 'KELM_CONFIG=--config-file /etc/kelm/kelm_simulated.config' >"$root/etc/default/kelmdaemon"
in_root systemctl reset-failed

restarts=${KELM_RESTARTS:-20}
say "$restarts restarts and a new version, under a client that connects again"
in_root sh -c "printf '[Unit]\nStartLimitBurst=100000\n' >/run/systemd/system/$unit.d/quick.conf"
in_root systemctl daemon-reload
start $unit
start kelmdaemon-sim@spare.service
cat >"$root/opt/load.py" <<'END'
import os, signal, sys, kelm
signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
with kelm.Client(name="load", reconnect=True) as client, client.load_graph("net.graph") as graph:
    while True:
        try:
            graph.infer(bytes(graph.input_bytes), deadline=20.0)
            print("result", flush=True)
        except kelm.KelmConnectionLostError:
            print("lost", flush=True)
END
: >"$work/results" # is looked at before the client has come so far
as_user alice python3 /opt/load.py >"$work/results" 2>&1 &
count() { grep -c result "$work/results" || true; }
gains() { [ "$(count)" -gt "$before" ]; }
for ((number = 0; number < restarts; ++number)); do
    before=$(count)
    wait_for "results" gains
    in_root systemctl restart $unit
    expect "restart $number" "active success" "$(about $unit ActiveState) $(about $unit Result)"
done
pids="$(about $unit MainPID) $(about kelmdaemon-sim@spare MainPID)"
apt --reinstall install /opt/packages
for unit in kelmdaemon.service kelmdaemon-sim@spare.service; do
    expect "$unit after the new version" active "$(about $unit ActiveState)"
    [[ " $pids " != *" $(about $unit MainPID) "* ]] || fail "$unit runs on as the old version"
done
before=$(count)
wait_for "results of the new version" gains
! grep -vE '^(result|lost)$' "$work/results" || fail "the client tells what stands above"

say "removing it while it runs, and purging"
apt remove "${names[@]}"
expect "units that run" "" "$(in_root systemctl list-units --plain --no-legend 'kelm*')"
! in_root pgrep -u kelm >/dev/null || fail "the removal leaves processes"
in_root dpkg --purge "${names[@]}" >"$work/log" 2>&1 || { cat "$work/log"; fail "the purge"; }
left=$(in_root find /run /etc /var/lib /var/tmp /usr/lib/kelm -xdev -name '*kelm*' \
    -not -path '/var/lib/dpkg/*' -not -path '/run/systemd/*' 2>/dev/null) || true
expect "what the purge leaves" "" "$left"
say "all is well: $(count) results, $(grep -c lost "$work/results" || true) lost, $restarts restarts"
