#!/usr/bin/env bash
# Installs the build tree into a new prefix, moves that to another place, and builds and runs the consumer against it by both routes.
# Usage: install_test.sh BUILD_DIR CONSUMER_DIR LIBDIR COMPILER [FLAGS]
set -euo pipefail
build_dir=$1 consumer=$2 libdir=$3 compiler=$4
read -r -a flags <<<"${5:-}"

work=$(mktemp -d)
trap 'rm -rf -- "$work"' EXIT
prefix=$work/moved
cmake --install "$build_dir" --prefix "$work/installed" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
mv -- "$work/installed" "$prefix"

check() { # what is printed must be a record that carries the parameter which the consumer set
    local route=$1 output=$2
    grep -q '"Timeout":"12"' <<<"$output" || { printf '%s: unexpected output: %s\n' "$route" "$output"; exit 1; }
    echo "$route: passed"
}

cmake -S "$consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="${flags[*]}" \
    >"$work/configure.log" || { cat "$work/configure.log"; exit 1; }
grep -q "SelvioFacialCapture_DIR:PATH=$prefix/" "$work/build/CMakeCache.txt" || { echo "find_package found another package"; exit 1; }
cmake --build "$work/build"
check find_package "$("$work/build/consumer")"

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig LD_LIBRARY_PATH=$prefix/$libdir
read -r -a pkg_flags < <(pkg-config --cflags --libs --print-errors SelvioFacialCapture)
"$compiler" -std=c++20 "${flags[@]}" "$consumer/main.cpp" -o "$work/consumer" "${pkg_flags[@]}"
check pkg-config "$("$work/consumer")"
unset LD_LIBRARY_PATH

if [[ -x $prefix/bin/selvio-capture ]]; then
    [[ $("$prefix/bin/selvio-capture" --version) == *3.2.1* ]] || { echo "the installed program does not run"; exit 1; }
    echo "program: passed"
fi
