#!/usr/bin/env bash
# Runs N disturbed captures in one process and fails if memory, descriptors or threads grow. Usage: scripts/soak.sh N [SEED]
set -euo pipefail
cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.."
if [[ ! ${1-} =~ ^[0-9]+$ ]]; then
    echo "usage: scripts/soak.sh N [SEED]" >&2
    exit 2
fi
scripts/install-deps.sh
cmake --preset bench >/dev/null
cmake --build build/bench --target soak
exec build/bench/bin/soak "$@"
