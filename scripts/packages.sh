#!/usr/bin/env bash
# Installs what the build needs from Debian, as root or through sudo. Sourced or run; does nothing
# when all of it is there.
set -euo pipefail

kelm_packages=(
    g++ cmake ninja-build ccache
    libboost-dev libboost-program-options-dev libboost-filesystem-dev libboost-system-dev
    libboost-thread-dev libssl-dev libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev
    libncurses-dev libfmt-dev nlohmann-json3-dev libusb-1.0-0-dev libcpp-httplib-dev
    libgrpc++-dev protobuf-compiler-grpc libprotobuf-dev pkg-config
    python3 python3-numpy "$@")

kelm_missing=()
for package in "${kelm_packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" ||
        kelm_missing+=("$package")
done
if [ ${#kelm_missing[@]} -gt 0 ]; then
    as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y \
        --no-install-recommends "${kelm_missing[@]}"
fi
