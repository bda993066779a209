#!/usr/bin/env bash
# Makes the Debian packages and installs them into a bare Debian 12, each with what it says it depends on and no more: the example in Python, the
# program, and hosts in C++ and C that are built there against the -dev package capture from simulated cameras, as a user without rights.
# Needs root, debootstrap, lintian, ffmpeg and the network; what was fetched stays in build/package/archives. Usage: scripts/packages-test.sh
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."
fail() {
    printf 'packages-test: %s\n' "$*" >&2
    exit 1
}
((EUID == 0)) || fail "must run as root, to make a system of its own"
for tool in debootstrap lintian ffmpeg; do
    command -v "$tool" >/dev/null || fail "$tool is missing: apt-get install debootstrap lintian ffmpeg"
done
say() { printf 'packages-test: %s\n' "$*"; }

scripts/packages.sh
archives=$PWD/build/package/archives
log=$PWD/build/package/test.log
mkdir -p "$archives"
root=$(mktemp -d "$PWD/build/package/root.XXXXXX")
clean_up() { # an archive or a /proc that is still mounted is not to be removed along with the root
    for mounted in "$root/proc" "$root/var/cache/apt/archives"; do
        ! mountpoint -q "$mounted" || umount "$mounted" || return
    done
    rm -rf --one-file-system -- "$root"
}
trap clean_up EXIT
quietly() {
    "$@" >"$log" 2>&1 </dev/null || fail "$(printf '%s\n' "failed: $*" && tail -n 40 "$log")"
}
inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 "$@"; }
as_user() { chroot --userspec=nobody:nogroup "$root" env -i -C /tmp HOME=/tmp PATH=/usr/bin:/bin LC_ALL=C.UTF-8 "$@"; }
install() { # NAME...: ours by their files, everything else, and what they need, from Debian
    say "installing $*"
    local name names=()
    for name in "$@"; do
        names+=("$(cd "$root" && compgen -G "./packages/${name}_*.deb" || echo "$name")")
    done
    quietly inside apt-get install -y --no-install-recommends "${names[@]}"
}
check_photograph() {
    [[ $(as_user selvio-capture show --json "$1") == *'"SelvioResultCode":"SuccessVideo"'* ]] || fail "$1 carries no record of a capture"
    say "captured: $1"
}

say "making a bare Debian 12"
quietly debootstrap --variant=minbase --cache-dir="$archives" bookworm "$root"
chmod 755 "$root"
mount -t proc proc "$root/proc"
mount --bind "$archives" "$root/var/cache/apt/archives"
echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/quick"
mkdir "$root/packages"
cp build/package/packages/*.deb "$root/packages"
quietly inside apt-get update
install libselvio-facial-capture3 libselvio-facial-capture-linux3 python3-selvio-facial-capture
cp examples/python/capture.py "$root/tmp"
quietly as_user python3 capture.py python.jpg
install libselvio-facial-capture-gtk3 selvio-capture
check_photograph python.jpg
quietly as_user selvio-capture run --source simulated --no-preview --out program
check_photograph program/selfie.jpg

install libselvio-facial-capture-dev g++ cmake ninja-build pkg-config
examples=/usr/share/doc/SelvioFacialCapture/examples
quietly as_user cmake -S "$examples/pipe-camera" -B pipe-camera -G Ninja
quietly as_user cmake --build pipe-camera
ffmpeg -loglevel error -loop 1 -i samples/astronaut.jpg -vf crop=140:249:56:0,scale=720:1280 -t 20 -f rawvideo -pix_fmt bgra - 2>/dev/null |
    as_user pipe-camera/pipe-camera 720 1280 >"$root/tmp/cpp.jpg" 2>"$log" || tail "$log"
check_photograph cpp.jpg
as_user cp "$examples/c/capture.c" .
# shellcheck disable=SC2016
quietly as_user sh -c 'cc -std=c11 capture.c -o c-capture $(pkg-config --cflags --libs SelvioFacialCaptureC)'
samples=/usr/share/SelvioFacialCapture/samples
quietly as_user ./c-capture "$samples/astronaut.jpg" "$samples/scripts/steady.json" c.jpg
check_photograph c.jpg
