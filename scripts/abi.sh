#!/usr/bin/env bash
# Compares the binary interface of the shared libraries with the last release's, which lies in abi/, and fails if it differs in anything.
# Needs abigail-tools. Usage: scripts/abi.sh [--update]
#   --update   write the new interface to abi/ instead
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."
if [[ ${1-} != "" && ${1-} != --update ]]; then
    echo "usage: scripts/abi.sh [--update]" >&2
    exit 2
fi
if ! command -v abidw >/dev/null; then
    echo "abi: abidw is missing: apt-get install abigail-tools" >&2
    exit 1
fi
cmake --preset dev >/dev/null
cmake --build build/dev --target SelvioFacialCaptureC SelvioFacialCaptureGtk -- --quiet
work=build/dev/abi
mkdir -p abi "$work"
differs=0
for library in build/dev/lib/libSelvioFacialCapture*.so; do
    name=$(basename "$library" .so)
    # Types that no public header defines are private, and may change.
    abidw --headers-dir include --drop-private-types --exported-interfaces-only --no-corpus-path --no-show-locs --no-comp-dir-path --no-elf-needed \
        --no-parameter-names --no-write-default-sizes --out-file "$work/$name.xml" "$library"
    if [[ ${1-} == --update ]]; then
        xz -9ec "$work/$name.xml" >"abi/$name.xml.xz"
        continue
    fi
    xz -dc "abi/$name.xml.xz" >"$work/$name.released.xml"
    if ! abidiff "$work/$name.released.xml" "$work/$name.xml" >"$work/$name.txt"; then
        printf 'abi: %s differs from its last release:\n%s\n' "$name" "$(<"$work/$name.txt")"
        differs=1
    fi
done
exit $differs
