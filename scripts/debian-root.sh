# Part of deb-check.sh and systemd-check.sh, which source it in name spaces of their own: a Debian root
# for the packages. The root's base and what was downloaded are kept in $KELM_DEB_CACHE
# (/var/cache/kelm-deb).
# shellcheck shell=bash
check=$(basename "$0" .sh)
skip() { echo "$check: not run: $*" >&2; exit 77; }
fail() { echo "$check: $*" >&2; exit 1; }
say() { echo "$check: $SECONDS s: $*"; }

mapfile -t names < <(sed -n 's/^Package: //p' packaging/debian/control)
cache=${KELM_DEB_CACHE:-/var/cache/kelm-deb}
close_root() {
    for mount in dev/shm dev/pts proc var/cache/apt/archives; do
        ! mountpoint -q "$root/$mount" || umount "$root/$mount"
    done
}
finish() {
    close_root
    umount --lazy "$work"
    rmdir "$work"
}
# In the name spaces that the mounts are for. Some 700 MB of memory: tens of thousands of small files
# take a disk longer than all the rest.
open_work() {
    work=$(mktemp -d)
    root=$work/root
    mount -t tmpfs -o mode=755 tmpfs "$work"
    trap finish EXIT
}

# Those of a directory, or without one newly built.
take_packages() { # directory
    packages=$work/packages
    if [ -n "$1" ]; then
        mkdir "$packages"
        cp "$1"/*.deb "$packages"
    else
        say "building"
        scripts/deb.sh "$packages" >/dev/null
    fi
    for name in "${names[@]}"; do
        compgen -G "$packages/${name}_*.deb" >/dev/null || fail "no package $name"
    done
}

make_root() {
    local base=$cache/bookworm.tar mirror
    mkdir -p "$cache/archives/partial"
    if [ ! -e "$base" ]; then
        mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Codename: bookworm' \
            'Identifier: Packages' | head -n 1)
        say "making the root's base from ${mirror:=http://deb.debian.org/debian}"
        debootstrap --variant=minbase bookworm "$root" "$mirror" >"$work/log" 2>&1 ||
            { tail -n 5 "$work/log"; skip "debootstrap fails as told above; is there a mirror?"; }
        tar -C "$root" -cf "$base.new" .
        mv "$base.new" "$base"
    else
        mkdir "$root"
        tar -C "$root" -xf "$base"
    fi
    cp /etc/resolv.conf "$root/etc/"
    echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/no-sync" # nobody needs this root after a crash
    mount --bind "$cache/archives" "$root/var/cache/apt/archives"
    mount -t proc proc "$root/proc"
    mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
}

# Runs a command as root, or as another user with its groups, in an environment of its own.
root_environment=(/usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8
    DEBIAN_FRONTEND=noninteractive)
in_root() {
    chroot "$root" "${root_environment[@]}" "$@"
}
as_user() { # user, command
    local user=$1
    shift
    in_root HOME="/home/$user" setpriv --reuid="$user" --regid="$user" --init-groups \
        sh -c 'umask 022; cd; exec "$@"' sh "$@"
}
apt() { # operation, packages or directories of them in /opt
    local words=() word file
    for word in "$@"; do
        if [ -d "$root$word" ]; then
            for file in "$root$word"/*.deb; do words+=("${file#"$root"}"); done
        else
            words+=("$word")
        fi
    done
    in_root apt-get -q -y --no-install-recommends -o Dpkg::Options::=--force-confold "${words[@]}" \
        >"$work/log" 2>&1 || { tail -n 40 "$work/log"; fail "apt-get $*"; }
}

# What the packages in /opt/packages depend on, as they themselves tell it, so that all that is new
# afterwards is theirs.
install_dependencies() { # further packages
    local ours
    say "installing what they depend on"
    in_root apt-get -q update >"$work/log" 2>&1 || { tail -n 5 "$work/log"; skip "the mirror is away"; }
    in_root sh -c 'apt-get install -s --no-install-recommends /opt/packages/*.deb' >"$work/plan" ||
        fail "they cannot be installed"
    ours=$(IFS='|'; echo "${names[*]}")
    # shellcheck disable=SC2046
    apt install "$@" $(awk -v ours="^($ours)$" '$1 == "Inst" && $2 !~ ours { print $2 }' "$work/plan")
}
