#!/usr/bin/env bash
# usage: run.sh BUILD_DIR SOURCE_DIR [CXX_FLAGS]: installs the build into a temporary prefix, builds the consumer against it and runs it.
set -euo pipefail
build=$1 source=$2 flags=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >"$work/install.log"
cmake -G Ninja -S "$source" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_FLAGS="$flags" >"$work/configure.log" || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/build"
"$work/build/consumer"
