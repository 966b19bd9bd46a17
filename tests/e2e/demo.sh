#!/usr/bin/env bash
# usage: demo.sh ROOT BIN: the demonstration succeeds without network and package tools, and leaves no file and no process behind.
set -euo pipefail
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
mkdir "$place/stubs" "$place/home" "$place/tmp"
for name in apt-get dpkg; do
  printf '#!/bin/sh\nexit 97\n' >"$place/stubs/$name"
  chmod +x "$place/stubs/$name"
done
HOME=$place/home XDG_CACHE_HOME=$place/home/cache TMPDIR=$place/tmp PATH=$place/stubs:$PATH \
  "$1/packaging/demo.sh" "$1" "$2" "$place/data"
left=$(find "$place/home" "$place/tmp" -mindepth 1)
[ -z "$left" ] || { echo "left behind: $left"; exit 1; }
for commandline in /proc/[0-9]*/cmdline; do
  { command=$(tr '\0' ' ' <"$commandline"); } 2>/dev/null || continue
  [[ $command != *"$place/tmp"* ]] || { echo "still runs: $command"; exit 1; }
done
