#!/usr/bin/env bash
# Builds the Debian packages of packaging/debian and leaves them in OUTDIR (build/packages).
# Their version is the project's in CMakeLists.txt.
#
#   scripts/deb.sh [OUTDIR]
#
# DEB_BUILD_OPTIONS= (empty) also makes the packages with the debugging symbols.
set -euo pipefail
out=$(realpath -m "${1:-$(dirname "$0")/../build/packages}")
cd "$(dirname "$0")/.."
./scripts/packages.sh debhelper dpkg-dev fakeroot libumockdev-dev

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A source directory of links, beside which debhelper may write.
tree=$work/kelmdaemon
mkdir "$tree"
ln -s "$PWD"/{config,docs,examples,packaging,python,tools} "$tree"
cp CHANGELOG.md "$tree"
cp -rL packaging/debian "$tree"
version=$(sed -n 's/^project(kelmdaemon VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
cat >"$tree/debian/changelog" <<END
kelmdaemon ($version-1) bookworm; urgency=medium

  * See changelog.gz for what has changed.

 -- $(sed -n 's/^Maintainer: //p' packaging/debian/control)  $(git log -1 --format=%cD 2>/dev/null || date -R)
END

export KELM_SOURCE=$PWD KELM_BUILD=$PWD/build/deb
export DEB_BUILD_OPTIONS=${DEB_BUILD_OPTIONS-noautodbgsym}
(cd "$tree" && dpkg-buildpackage --build=binary --no-sign) >"$work/log" 2>&1 ||
    { tail -n 60 "$work/log"; exit 1; }
mkdir -p "$out"
for package in "$work"/*.deb; do
    rm -f "$out/$(dpkg-deb -f "$package" Package)"_*.deb # of another version
    mv "$package" "$out"
done
ls -l "$out"/*.deb
