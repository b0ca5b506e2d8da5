#!/usr/bin/env bash
# Installs the packages in a clean Debian root, uses them there, upgrades, removes and purges them,
# and has lintian look at them. The host is left as it is.
#
#   scripts/deb-check.sh [DIRECTORY]    builds the packages, or takes those that lie there
#
# Needs root, debootstrap, lintian and a mirror; ends with a word and status 77 where it lacks one.
#
# Nothing starts services in such a root. A unit is started by hand: its programs with its account,
# mask, directories and environment, all read from the installed unit. Its hardening is not applied;
# systemd-check.sh boots a root for that.
set -euo pipefail
given=${1:+$(realpath "$1")}
cd "$(dirname "$0")/.."
. scripts/debian-root.sh

[ "$(id -u)" -eq 0 ] || skip "only root may make a Debian root; run it with sudo"
for tool in debootstrap lintian unshare apt-get; do
    command -v "$tool" >/dev/null || skip "$tool is missing; apt install debootstrap lintian"
done
# With name spaces of its own, so that no mount and no process outlives it.
if [ "${KELM_DEB_CHECK:-}" != inside ]; then
    unshare --mount --pid --fork true 2>/dev/null || skip "name spaces are not allowed here"
    export KELM_DEB_CHECK=inside
    exec unshare --mount --pid --fork --kill-child --mount-proc "scripts/${0##*/}" "$given"
fi

open_work
take_packages "$given"
say "lintian"
lintian --allow-root --fail-on error --suppress-tags initial-upload-closes-no-bugs "$packages"/*.deb ||
    fail "lintian finds errors"

# What the upgrade begins with: the same packages of a lower version, with older configuration.
version=$(dpkg-deb -f "$packages"/kelmdaemon_*.deb Version)
older=0.0.1-1
mkdir "$work/older"
for package in "$packages"/*.deb; do
    dpkg-deb -R "$package" "$work/package"
    sed -i "s/$version/$older/g" "$work/package/DEBIAN/control"
    for file in "$work"/package/etc/kelm/*; do
        [ ! -f "$file" ] || echo "// As it was." >>"$file"
    done
    dpkg-deb --root-owner-group -Znone -b "$work/package" "$work/older" >/dev/null
    rm -r "$work/package"
done

make_root
mv "$packages" "$work/older" "$root/opt/"

# Everything but what the package manager keeps for itself.
list_files() {
    in_root find / -xdev \( -path /proc -o -path /dev -o -path /opt -o -path /home -o -path /tmp \
        -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o -path /var/log \) \
        -prune -o -print | sort
}

# A service as its installed unit says. `unit KEY` prints the values of a key, a line each.
open_unit() { # name, instance
    unit_file=$root/lib/systemd/system/$1 instance=${2:-}
}
unit() {
    sed -n "s/^$1=//p" "$unit_file" | sed "s|%t|/run|g; s|%S|/var/lib|g; s|%i|$instance|g"
}
as_unit() { # a line of the unit with a command
    local settings=() file setting options="" words
    mapfile -t settings < <(unit Environment)
    for file in $(unit EnvironmentFile); do
        [ ! -e "$root${file#-}" ] || mapfile -t -O "${#settings[@]}" settings <"$root${file#-}"
    done
    for setting in "${settings[@]}"; do
        [[ $setting != KELM_CONFIG=* ]] || options=${setting#*=}
    done
    read -ra words <<<"${1//\$KELM_CONFIG/$options}"
    exec chroot "$root" /usr/bin/env -i PATH=/usr/bin:/bin "${settings[@]}" \
        setpriv --reuid="$(unit User)" --regid="$(unit Group)" --init-groups --no-new-privs \
        sh -c 'umask "$1"; cd "$2"; shift 2; exec "$@"' \
        sh "$(unit UMask)" "$(unit WorkingDirectory)" "${words[@]}"
}
service=""
start_unit() {
    local directory line
    for directory in "/run/$(unit RuntimeDirectory)" "/var/lib/$(unit StateDirectory)"; do
        in_root install -d -m 750 -o "$(unit User)" -g "$(unit Group)" "$directory"
    done
    while read -r line; do (as_unit "$line") || fail "ExecStartPre: $line"; done < <(unit ExecStartPre)
    (as_unit "$(unit ExecStart)") >"$work/service.log" 2>&1 &
    service=$!
    in_root "$(unit Environment | grep KELM_RUN_DIR=)" kelmctl wait-ready --timeout 20 ||
        { cat "$work/service.log"; fail "it does not become ready"; }
}
stop_unit() {
    kill "-$(unit KillSignal)" "$service"
    wait "$service" || fail "the service ended with status $?"
    service=""
}

install_dependencies
in_root useradd --create-home --key HOME_MODE=0700 alice
in_root useradd --create-home --key HOME_MODE=0700 bob
list_files >"$work/before"

say "installing $version"
apt install /opt/packages
libraries=$(dirname "$(find "$root/usr/lib" -name libkelm.so.1)")
for file in usr/bin/kelmctl usr/lib/kelm/{bin/{kelmdaemon,kelmctl,kelm-gateway},config/kelm_service.config} \
    etc/kelm/{kelm_service,kelm_simulated}.config usr/lib/{sysusers,tmpfiles}.d/kelm.conf \
    lib/systemd/system/{kelmdaemon{,-sim@},kelm-gateway}.service etc/kelm/models lib/udev/rules.d/70-kelm.rules \
    usr/include/kelm/kelm.h "${libraries#"$root/"}"/{libkelm.{so,a},pkgconfig/kelm.pc} \
    usr/lib/python3/dist-packages/kelm/__init__.py usr/lib/kelm/simulator/{kelm-usb-bus,bin/autoboot} \
    usr/share/doc/kelmdaemon/operating.md usr/share/kelm/prometheus/kelm-gateway.rules.yml \
    usr/share/man/man8/kelm{daemon,-gateway}.8.gz usr/share/bash-completion/completions/kelm{ctl,-gateway} \
    usr/share/zsh/vendor-completions/_kelm{ctl,-gateway}; do
    in_root test -e "/$file" || fail "/$file is missing"
done
in_root grep -q '"user_group": "kelm"' /usr/lib/kelm/config/kelm_service.config ||
    fail "the sockets would not be for the group kelm"
[ "$(in_root stat -c '%U:%G %a' /run/kelm)" = "kelm:kelm 750" ] || fail "/run/kelm was not made"
links=$(in_root find /etc/systemd -name 'kelm*')
[ -z "$links" ] || fail "the installation enables $links"
in_root kelmctl version | grep -q "${version%-*}" || fail "kelmctl version tells of another one"

say "the service on simulated devices, with clients of the group and of others"
in_root gpasswd --add alice kelm >/dev/null
echo 'KELM_CONFIG=--config-file /etc/kelm/kelm_simulated.config' >"$root/etc/default/kelmdaemon"
cc examples/camera.c -I"$root/usr/include" -L"$libraries" -lkelm -o "$root/opt/camera"
open_unit kelmdaemon.service
start_unit
[ "$(stat -c %U "/proc/$service")" = "$(stat -c %U "$root/var/lib/kelm")" ] ||
    fail "it runs as another account than its own"
as_user alice sh -c 'cp /usr/lib/kelm/simulator/example.graph . && chmod 600 example.graph'
as_user alice sh -c 'echo input >input'
as_user alice kelmctl infer --graph example.graph --input input --pad --output output ||
    fail "kelmctl infer of a member of the group fails"
as_user alice test -s output || fail "kelmctl infer wrote nothing"
for program in /opt/camera 'python3 /usr/share/doc/python3-kelm/examples/camera.py'; do
    # shellcheck disable=SC2086
    [ "$(as_user alice $program example.graph 50)" = "50 of 50 frames" ] || fail "$program fails"
done
! as_user bob kelmctl status >"$work/log" 2>&1 || fail "others than the group are let in"
stop_unit

open_unit kelmdaemon-sim@.service spare
start_unit
as_user alice env KELM_RUN_DIR=/run/kelm-sim/spare kelmctl bench --seconds 1 \
    --graph example.graph >"$work/log" 2>&1 || { cat "$work/log"; fail "kelmctl bench against an instance fails"; }
stop_unit

say "the simulator"
as_user alice env KELM_INSTALL_DIR=/usr/lib/kelm/simulator KELM_RUN_DIR=/home/alice \
    /usr/lib/kelm/simulator/kelm-usb-bus --dir simulator --device 1.1 -- \
    /usr/lib/kelm/bin/kelmdaemon >"$work/service.log" 2>&1 </dev/null &
service=$!
as_user alice env KELM_RUN_DIR=/home/alice sh -c 'kelmctl wait-ready --devices 1 --timeout 20 &&
    /usr/lib/kelm/simulator/kelm-sim-load --tasks 100 --graph example.graph' >"$work/log" ||
    { cat "$work/service.log" "$work/log"; fail "the simulator's load fails"; }
as_user alice env KELM_RUN_DIR=/home/alice kelmctl stop
wait "$service" || fail "the service on the simulator ended with status $?"
service=""

# Removes and purges, and looks for what stays.
purge() {
    apt remove "${names[@]}"
    for file in kelm_service kelm_simulated; do
        in_root test -e "/etc/kelm/$file.config" || fail "$file.config is gone before the purge"
    done
    [ ! -e "$root/usr/lib/kelm" ] || fail "the removal leaves /usr/lib/kelm"
    in_root dpkg --purge "${names[@]}" >"$work/log" 2>&1 || { cat "$work/log"; fail "the purge"; }
    list_files >"$work/after"
    diff "$work/before" "$work/after" || fail "the purge leaves, or takes, what is told above"
}
say "removing and purging"
in_root systemctl enable kelmdaemon.service kelmdaemon-sim@default.service >"$work/log" 2>&1
purge

say "upgrading from $older, with a configuration that was changed"
apt install /opt/older
echo "// Ours." >>"$root/etc/kelm/kelm_service.config"
apt install /opt/packages
[ "$(in_root dpkg-query -W -f '${Version}' kelmdaemon)" = "$version" ] || fail "not upgraded"
grep -q '^// Ours.' "$root/etc/kelm/kelm_service.config" || fail "a change of the user is lost"
! grep -q '^// As it was.' "$root/etc/kelm/kelm_simulated.config" ||
    fail "a configuration that nobody has changed stays the older one"
in_root kelmctl version >/dev/null
purge
say "all is well; the account kelm stays after a purge, as is usual"
