#!/usr/bin/env bash
# Builds the component without its adapters and runs its tests as other compilers and machines see it. Usage: scripts/machines.sh [NAME...]
#   libcxx   clang with its own standard library
#   arm64    64-bit ARM, in an emulator
#   s390x    a machine whose bytes come in the other order, in an emulator
# Installs the Debian packages that these need. None of them replaces what the other presets build with.
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."
names=("$@")
((${#names[@]} > 0)) || names=(libcxx arm64 s390x)

fetch_libcxx() { # its development packages and GStreamer's exclude each other, hence a folder of its own
    local root=$PWD/build/libcxx/root work
    [[ ! -d $root ]] || return 0
    work=$(mktemp -d)
    (cd "$work" && apt-get download -q libc++{1-14,-14-dev} libc++abi{1-14,-14-dev} libunwind-14{,-dev} >/dev/null 2>&1)
    for package in "$work"/*.deb; do dpkg -x "$package" "$work/root"; done
    mkdir -p "${root%/*}"
    mv -- "$work/root" "$root"
    rm -rf -- "$work"
}
failed=0
for name in "${names[@]}"; do
    case $name in
        libcxx) scripts/install-deps.sh googletest; fetch_libcxx ;;
        arm64) scripts/install-deps.sh g++-aarch64-linux-gnu qemu-user googletest ;;
        s390x) scripts/install-deps.sh g++-s390x-linux-gnu qemu-user googletest ;;
        *) echo "machines: there is no $name" >&2 && exit 2 ;;
    esac
    echo "machines: $name" >&2
    cmake --preset "$name" >/dev/null
    cmake --build "build/$name"
    ctest --preset "$name" --no-tests=error </dev/null || failed=1
done
exit $failed
