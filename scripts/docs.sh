#!/usr/bin/env bash
# Makes pages of the public headers and the guides with Doxygen, and fails at its first warning. Usage: scripts/docs.sh [FOLDER], default build/docs
set -euo pipefail
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)

command -v doxygen >/dev/null || {
    echo "docs: doxygen is missing: apt-get install --no-install-recommends doxygen" >&2
    exit 1
}
cd -- "$root"
folder=${1:-build/docs}
mkdir -p -- "$folder"
{
    cat Doxyfile
    printf 'OUTPUT_DIRECTORY = "%s"\n' "$folder"
} | doxygen -
echo "docs: $folder/html/index.html" >&2
