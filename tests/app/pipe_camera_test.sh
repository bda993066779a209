#!/usr/bin/env bash
# The example's camera captures the sample portrait from a pipe, and refuses what is no frame size.
# Usage: pipe_camera_test.sh PIPE_CAMERA SELVIO_CAPTURE PORTRAIT
set -euo pipefail
pipe_camera=$1 selvio_capture=$2 portrait=$3
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT

frames() { # the portrait, cut so that its face is well placed
    ffmpeg -loglevel quiet -loop 1 -i "$portrait" -vf crop=140:249:56:0,scale=720:1280 -t 20 -f rawvideo -pix_fmt bgra -
}
"$pipe_camera" 720 1280 < <(frames) >"$work/selfie.jpg" 2>"$work/log" || { cat "$work/log"; exit 1; }
[[ $("$selvio_capture" show --json "$work/selfie.jpg") == *'"SelvioResultCode":"SuccessVideo"'* ]]
! "$pipe_camera" 720 none </dev/null >"$work/none" 2>&1
[[ $(<"$work/none") == usage:* ]]
