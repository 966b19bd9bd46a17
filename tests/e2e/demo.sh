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
HOME=$place/home TMPDIR=$place/tmp PATH=$place/stubs:$PATH "$1/packaging/demo.sh" "$1" "$2"
left=$(find "$place/home" "$place/tmp" -mindepth 1)
[ -z "$left" ] || { echo "left behind: $left"; exit 1; }
if pgrep -f -- "--port-file $place/tmp" >/dev/null; then
  echo "a server still runs"
  exit 1
fi
