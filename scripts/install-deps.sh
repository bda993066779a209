#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing need. Says nothing and asks nothing when all is there.
# Works as root and, for anyone else, through sudo.
set -euo pipefail

packages=(
    # build
    g++ cmake ninja-build pkg-config nlohmann-json3-dev libcli11-dev
    # faces and their landmarks
    libdlib-dev libdlib-data liblapack-dev libblas-dev
    # pictures
    libturbojpeg0-dev libpng-dev libexif-dev libyuv-dev
    # capture, preview, recording, machine-readable codes
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly gstreamer1.0-plugins-bad
    gstreamer1.0-libav gstreamer1.0-x gstreamer1.0-pipewire libpipewire-0.3-dev libzxing-dev
    # tests and benchmarks
    clang libgtest-dev libgmock-dev libbenchmark-dev libjpeg-dev zlib1g-dev python3
    pipewire wireplumber dbus umockdev gstreamer1.0-tools ffmpeg xvfb imagemagick exif libimage-exiftool-perl
)

# dpkg-query exits with an error when it does not know a package; what matters is which ones it lists as installed.
installed=$(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "${packages[@]}" 2>/dev/null | sed -n 's/ installed$//p' || true)
missing=()
for package in "${packages[@]}"; do
    grep -qxF -- "$package" <<<"$installed" || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

as_root=()
if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
        echo "install-deps: these packages are missing, and neither root nor sudo is at hand to install them:" >&2
        echo "    apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi

echo "install-deps: installing ${#missing[@]} packages" >&2
quietly() {
    local output
    if ! output=$("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive "$@" </dev/null 2>&1); then
        printf '%s\n' "$output" >&2
        echo "install-deps: failed: $*" >&2
        exit 1
    fi
}
quietly apt-get update -q
quietly apt-get install -y -q --no-install-recommends "${missing[@]}"
