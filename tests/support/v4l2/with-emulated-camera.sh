#!/usr/bin/env bash
# Runs a command on a machine that seems to have one Video4Linux camera, /dev/video0, and no other device of that kind.
#
#   with-emulated-camera.sh EMULATION COMMAND...     EMULATION: libselvio_emulated_camera.so
#
# Where umockdev is not installed the command runs without the camera.
set -u
emulation=$1
shift
command -v umockdev-run >/dev/null || exec "$@"
home=$(mktemp -d "${TMPDIR:-/tmp}/selvio-camera-XXXXXX") || exit 1
trap 'rm -rf "$home"' EXIT
export SELVIO_EMULATED_CAMERA=$home
# The address sanitizer wants to be the first library of all.
export ASAN_OPTIONS=${ASAN_OPTIONS:-}:verify_asan_link_order=0
umockdev-run -d "$(dirname -- "$0")/emulated-camera.umockdev" -- env LD_PRELOAD="$emulation:libumockdev-preload.so.0" "$@"
