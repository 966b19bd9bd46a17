#!/usr/bin/env bash
# usage: demo.sh ROOT [BIN [DATA]]: takes real measurement files to a server of its own and back, and shows what a version conflict
# looks like. ROOT is the repository, BIN holds the programs (default: those of build/release), DATA keeps the files that are
# downloaded (default: build/data). Leaves nothing else behind; fails when any step does.
set -euo pipefail

ROOT=$1
BIN=${2:-$ROOT/build/release/bin}
DATA=${3:-$ROOT/build/data}
PACKAGES=(openms-doc python-pymzml-doc r-cran-maldiquantforeign)
work=
server=
more=

fail() { printf 'demo: FAILED: %s\n' "$*" >&2; exit 1; }
step() { printf '\n== %s\n' "$*"; }
# Shows a command as a person would type it, then runs it.
show() { printf '$ halvane'; printf ' %q' "$@"; printf '\n'; "$BIN/halvane" "$@"; }

clean_up() {
  local code=$?
  trap - EXIT
  if [ -n "$server" ] && kill -0 "$server" 2>/dev/null; then
    kill -KILL "$server"
    wait "$server" 2>/dev/null || code=$((code == 0 ? 1 : code))
  fi
  [ -z "$work" ] || rm -rf -- "$work"
  [ "$code" -eq 0 ] || printf 'demo: FAILED (exit code %s)\n' "$code" >&2
  exit "$code"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# The value of one key of a JSON line on standard input.
field() { python3 -c 'import json, sys; print(json.loads(sys.stdin.readline())[sys.argv[1]])' "$1"; }

# files_that OUTCOME FILE: how many files of a run had that outcome, by its JSON lines.
files_that() {
  python3 -c '
import json, sys
lines = [json.loads(line) for line in open(sys.argv[2])]
print(sum(line.get("type") == "file" and line.get("outcome") == sys.argv[1] for line in lines))' "$1" "$2"
}

start_server() {
  printf '%s\n' "$password" |
    "$BIN/halvane-server" init --data "$work/data" --admin anna --password-stdin >"$work/init.log" 2>&1 ||
    { cat "$work/init.log" >&2; fail "the data directory could not be prepared"; }
  "$BIN/halvane-server" --data "$work/data" --listen 127.0.0.1:0 --port-file "$work/port" >"$work/server.log" 2>&1 &
  server=$!
  local tries=0
  until [ -s "$work/port" ]; do
    kill -0 "$server" 2>/dev/null || { cat "$work/server.log" >&2; fail "the server did not start"; }
    tries=$((tries + 1))
    [ "$tries" -lt 600 ] || fail "the server does not listen after a minute"
    sleep 0.1
  done
  url=http://127.0.0.1:$(tr -d '[:space:]' <"$work/port")
}

# as CLIENT COMMAND...: runs the command with the settings of one of two independent clients.
as() {
  local client=$1
  shift
  HALVANE_CONFIG_DIR=$work/$client/config HALVANE_CACHE_DIR=$work/$client/cache "$@"
}

same() { cmp -- "$1" "$2" || fail "$2 differs from $1"; }

sha256_of() { sha256sum -- "$1" | cut -d' ' -f1; }

step "Real measurement files"
origin="tests/data and Debian's ${PACKAGES[*]}"
downloaded=yes
"$ROOT/packaging/real-files.sh" "$DATA" "${PACKAGES[@]}" || downloaded=
work=$(mktemp -d "${TMPDIR:-/tmp}/halvane-demo.XXXXXX")
export HOME=$work/home
mkdir -p "$HOME" "$work/up" "$work/down" "$work/colleague/files"
unset HALVANE_PROFILE
password=$(od -An -N12 -tx1 /dev/urandom | tr -d ' \n')

if [ -n "$downloaded" ]; then
  examples=$DATA/r-cran-maldiquantforeign/exampledata
  cp -p "$DATA"/openms-doc/*.mzML "$DATA"/python-pymzml-doc/*.mzML "$work/up/"
  cp -p "$examples/tiny1-compressed.mzML1.1.mzML" "$examples/tiny1-compressed.mzXML3.0.mzXML" "$work/up/"
else
  origin="tests/data only"
  echo "Going on with the small files of tests/data."
fi
cp "$ROOT"/tests/data/*.mzML "$ROOT"/tests/data/*.mzXML "$work/up/"
(cd "$work/up" && ls -l --time-style=+ | awk 'NF > 4 {printf "%12d bytes  %s\n", $5, $NF}')

step "A server in a temporary directory"
start_server
echo "halvane-server listens at $url"

step "Log in and make a folder"
printf '%s\n' "$password" | as anna show login "$url" --user anna --password-stdin
as anna show mkdir -p /raw/2026

step "Put the files"
count=0
for file in "$work"/up/*; do
  line=$(as anna "$BIN/halvane" --json put "$file" --to /raw/2026 --as-file)
  [ "$(field sha256 <<<"$line")" = "$(sha256_of "$file")" ] || fail "the server's SHA-256 of $file is another one"
  printf '%s -> %s, sha256 %.16s...\n' "$(basename "$file")" "$(field reference <<<"$line")" "$(field sha256 <<<"$line")"
  count=$((count + 1))
done

step "List the folder"
as anna show ls -l /raw/2026
listed=$(as anna "$BIN/halvane" --json ls /raw/2026 | wc -l)
[ "$listed" -eq "$count" ] || fail "$count files were put and $listed are listed"

step "Get them back from the server and compare"
bytes=0
for file in "$work"/up/*; do
  name=$(basename "$file")
  as anna "$BIN/halvane" --quiet get --no-cache "/raw/2026/$name" --to "$work/down" >/dev/null
  same "$file" "$work/down/$name"
  [ "$(sha256_of "$file")" = "$(sha256_of "$work/down/$name")" ] || fail "the SHA-256 of $name differs"
  bytes=$((bytes + $(stat -c %s "$file")))
  echo "$name: identical"
done

mkdir "$work/unpacked"
step "Put them as acquisitions, which are packed for it, and get them back as they were"
as anna show mkdir /acquisitions
for file in "$work"/up/*; do
  name=$(basename "$file")
  line=$(as anna "$BIN/halvane" --json put "$file" --to /acquisitions)
  [ "$(field name <<<"$line")" = "$name.vonk" ] || fail "$name was not packed"
  as anna "$BIN/halvane" --quiet get --no-cache "/acquisitions/$name.vonk" --to "$work/unpacked" >/dev/null
  same "$file" "$work/unpacked/$name"
  echo "$name: $(stat -c %s "$file") bytes packed into $(field size <<<"$line"), came back identical"
done
as anna show inspect /acquisitions/tiny.mzML.vonk

if [ -n "$downloaded" ]; then
  as anna show inspect /acquisitions/BSA1_F1.mzML.vonk
  as anna show inspect /acquisitions/tiny1-compressed.mzXML3.0.mzXML.vonk
  step "Images with their binary companions and a directory of a spectrometer, packed and back"
  mkdir "$work/more" "$work/more-back"
  cp -p "$examples"/tiny_*.imzML "$examples"/tiny_*.ibd "$work/more/"
  cp -pr "$examples/brukerflex/0_A1/1/1SLin" "$work/more/"
  for name in tiny_continuous.imzML tiny_processed.imzML 1SLin; do
    as anna show put "$work/more/$name" --to /acquisitions
    as anna show inspect "/acquisitions/$name.vonk"
    as anna show get --no-cache "/acquisitions/$name.vonk" --to "$work/more-back"
  done
  diff -r -- "$work/more" "$work/more-back" || fail "what came back differs from what was put"
  echo "$work/more-back is identical to $work/more"
  more="Two images with their companions and a spectrometer's directory were packed, and came back identical."
fi

step "Get the whole folder on another machine, twice"
mkdir "$work/whole"
printf '%s\n' "$password" | as colleague "$BIN/halvane" --quiet login "$url" --user anna --password-stdin >/dev/null
as colleague show get /raw --to "$work/whole"
diff -r -- "$work/up" "$work/whole/raw/2026" || fail "the folder that came down differs from what was put"
for file in "$work"/up/*; do
  [ "$(stat -c %Y "$file")" = "$(stat -c %Y "$work/whole/raw/2026/$(basename "$file")")" ] ||
    fail "the modification time of $(basename "$file") was not restored"
done
echo "$work/whole/raw/2026 is identical to $work/up, times included"
lost=$(basename "$(find "$work/up" -type f | sort | head -n 1)")
rm -- "$work/whole/raw/2026/$lost"
as colleague "$BIN/halvane" --json get /raw --to "$work/whole" >"$work/fetched.json"
fetched=$(files_that downloaded "$work/fetched.json")
[ "$fetched" -eq 1 ] || fail "$fetched files came by the second run, and only $lost was missing"
same "$work/up/$lost" "$work/whole/raw/2026/$lost"
echo "the second run brought $lost, which was missing, and nothing else"

step "Once more, from the cache: what was put here need not be fetched"
mkdir "$work/again"
line=$(as anna "$BIN/halvane" --json get /raw/2026/tiny.mzML --to "$work/again")
[ "$(field from_cache <<<"$line")" = True ] || fail "the file was fetched: $line"
same "$work/up/tiny.mzML" "$work/again/tiny.mzML"
as anna show cache ls

step "A colleague on another machine gets a file"
as colleague show get /raw/2026/tiny.mzML --to "$work/colleague/files"
same "$work/up/tiny.mzML" "$work/colleague/files/tiny.mzML"

step "Meanwhile it is changed and put as a new version"
cp "$work/up/tiny.mzML" "$work/first.mzML"
printf '<!-- checked again -->\n' >>"$work/up/tiny.mzML"
line=$(as anna "$BIN/halvane" --json put "$work/up/tiny.mzML" --to /raw/2026 --as-file --new-version --check-version)
[ "$(field version <<<"$line")" = 2 ] || fail "version 2 was expected: $line"
id=$(field id <<<"$line")
echo "file:$id has version 2"

step "The colleague's older copy is not put on top of it"
printf '<!-- a remark on the old version -->\n' >>"$work/colleague/files/tiny.mzML"
code=0
as colleague show put "$work/colleague/files/tiny.mzML" --to /raw/2026 --as-file --new-version --check-version || code=$?
[ "$code" -eq 8 ] || fail "the version conflict should end with exit code 8, not $code"
last=$(as anna "$BIN/halvane" --json ls "file:$id" | field version)
[ "$last" = 2 ] || fail "the conflict changed the server: version $last"

step "Both versions are there"
as anna show --quiet get --no-cache "file:$id@1" --to "$work/down/version-1.mzML"
as anna show --quiet get --no-cache "file:$id@2" --to "$work/down/version-2.mzML"
same "$work/first.mzML" "$work/down/version-1.mzML"
same "$work/up/tiny.mzML" "$work/down/version-2.mzML"

step "A directory with a file, raw data (a file and a directory) and a packed acquisition; the last one is damaged"
tree=$work/tree/2026
mkdir -p "$tree/sub/empty"
echo "measured on Monday" >"$tree/notes.txt"
cp "$ROOT/tests/data/tiny.mzML" "$tree/sub/"
cp -r "$ROOT/tests/data/sqlite-frames.d" "$tree/sub/"
as anna show pack "$ROOT/tests/data/two-scans.mzXML" -o "$work/archived.vonk"
head -c 1000 "$work/archived.vonk" >"$tree/sub/archived.vonk"
find "$tree" -exec touch -h -d '2026-03-01 12:00' {} +
as anna show put "$tree" --to /raw --dry-run --if-exists keep-both
mkdir "$work/trees"
as anna "$BIN/halvane" --quiet mkdir /trees >/dev/null
code=0
as anna show put "$tree" --to /trees --keep-going || code=$?
[ "$code" -eq 14 ] || fail "the damaged file should end the run with exit code 14, not $code"

step "It is mended, and sent again alone"
cp "$work/archived.vonk" "$tree/sub/archived.vonk"
as anna show put "$tree" --to /trees --keep-going --retry
as anna "$BIN/halvane" --json put "$tree" --to /trees >"$work/sent.json"
sent=$(files_that uploaded "$work/sent.json")
[ "$sent" -eq 0 ] || fail "$sent files were sent once more"
echo "a third run sent nothing"

step "The tree comes down elsewhere, identical"
as colleague show get /trees/2026 --to "$work/trees"
as colleague show get /trees/2026/sub/archived.vonk --packed --to "$work/archived-back.vonk"
same "$work/archived.vonk" "$work/archived-back.vonk"
# What was packed by hand comes as what it was made of.
rm -- "$tree/sub/archived.vonk"
cp "$ROOT/tests/data/two-scans.mzXML" "$tree/sub/"
diff -r -- "$tree" "$work/trees/2026" || fail "the tree that came down differs from what was put"
echo "$work/trees/2026 is identical to $tree"

step "Stop the server"
kill -TERM "$server"
code=0
wait "$server" || code=$?
server=
[ "$code" -eq 0 ] || { cat "$work/server.log" >&2; fail "the server ended with exit code $code"; }
echo "ended with exit code 0"

cat <<SUMMARY

== Summary
  $count real files ($bytes bytes; $origin) went up and came back byte for byte, by cmp and by SHA-256.${more:+
  $more}
  Their folder came down on another machine, identical; a second run brought only the file that was missing.
  One of them got a second version; version 1 and version 2 can both be fetched.
  A tree of files, raw data and a packed acquisition went up, a damaged file in it by a retry, and came down identical.
  A client that knew version 1 only was told so (exit code 8) instead of hiding version 2.
  The server's data, both clients' settings and all copies were in a temporary directory that is now removed.
SUMMARY
