#!/usr/bin/env bash
# Installs the Python package from the sources into a new environment, without a network, and runs the examples in it.
# Usage: install_test.sh PYTHON SOURCE_DIR
set -euo pipefail
python=$1 source_dir=$2
work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT

"$python" -m venv --system-site-packages "$work/environment"
"$work/environment/bin/pip" install --quiet --no-index "$source_dir/python"
cd -- "$work"
"$work/environment/bin/python" "$source_dir/examples/python/capture.py" selfie.jpg "$source_dir/samples/scripts/steady.json"
[[ -s selfie.jpg ]]
judged=$("$work/environment/bin/python" "$source_dir/examples/python/judge.py" "$source_dir/samples/scripts/steady.json")
echo "$judged"
[[ $judged == "0 GOOD_FRAME "*$'\n'"150 "*NOT_CENTERED* ]]
