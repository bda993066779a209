#!/usr/bin/env bash
# Makes the Debian packages in build/package/packages and lets lintian read them. Usage: scripts/packages.sh
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."
scripts/install-deps.sh
cmake --preset package >/dev/null
cmake --build build/package
rm -rf build/package/packages/*.deb
(cd build/package && umask 022 && cpack -B packages >/dev/null)
if command -v lintian >/dev/null; then lintian --fail-on error build/package/packages/*.deb; fi
ls -l build/package/packages/*.deb
