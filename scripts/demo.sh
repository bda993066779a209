#!/usr/bin/env bash
# From a fresh clone to a photograph: installs what is missing, builds, and captures the sample portrait, which a script moves about in front of the
# simulated camera. Usage: scripts/demo.sh [option of `selvio-capture run`]…
set -euo pipefail
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)

"$root/scripts/install-deps.sh"
cd -- "$root"
echo "demo: building" >&2
cmake --preset release >/dev/null
cmake --build build/release --target selvio-capture
echo "demo: capturing the sample photograph" >&2
[[ " $*" == *" --out"* ]] || set -- --out capture "$@"
build/release/bin/selvio-capture run --source simulated --photo samples/astronaut.jpg --script samples/scripts/demo.json --timeout 30 "$@" </dev/null
