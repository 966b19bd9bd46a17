#!/usr/bin/env bash
# usage: storeys.sh ROOT: no library includes a header of a higher storey, and the plug-in includes no network, SQL or archive library.
set -euo pipefail
cd "$1"
storeys=(platform/orx_common_stable platform/orx_qt_shared_libs_core
         platform/orx_common_ms_types platform/orx_common_ms platform/orx_tasks platform/orx_common_ms_reader
         platform/orx_network platform/orx_references
         platform/orx_halvane platform/orx_resource_manager resource_handler/halvane_resource_handler apps/host apps/halvane)
# Siblings that must not know each other either: a library, and the headers of those it may not use.
forbidden=(
  "platform/orx_references:platform/orx_tasks platform/orx_network"
  "platform/orx_resource_manager:platform/orx_halvane platform/orx_network platform/orx_common_ms_reader"
  "platform/orx_network:platform/orx_common_ms_reader"
)
bad=0
headers_of() { find "$1" -name "*.h" -not -path "*/tests/*" -printf "%f\n" | sort -u; }
check() { # library, library whose headers it must not include
  local own; own=$(headers_of "$1")
  local names; names=$(comm -23 <(headers_of "$2") <(echo "$own") | sed 's/\./\\./g' | paste -sd'|')
  [ -n "$names" ] || return 0
  if grep -rnE "#include [<\"]($names)[>\"]" "$1" --include='*.h' --include='*.cpp' --exclude-dir=tests; then
    echo "$1 includes headers of $2"
    bad=1
  fi
}
for ((low = 0; low < ${#storeys[@]}; ++low)); do
  for ((high = low + 1; high < ${#storeys[@]}; ++high)); do check "${storeys[low]}" "${storeys[high]}"; done
done
for pair in "${forbidden[@]}"; do
  for other in ${pair#*:}; do check "${pair%%:*}" "$other"; done
done
if grep -rnE '#include <(curl/|sqlite3|SQLiteCpp/|openssl/|xxhash|archive|zstd|thread|mutex|atomic)|QThread|QMutex' resource_handler --include='*.h' --include='*.cpp' --exclude-dir=tests; then
  echo "the plug-in uses what it must not"
  bad=1
fi
if grep -rnE '#include <(Q[A-Z]|orx)' server --include='*.h' --include='*.cpp'; then
  echo "the server uses Qt or the platform"
  bad=1
fi
exit $bad
