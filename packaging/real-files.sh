#!/usr/bin/env bash
# usage: real-files.sh DIRECTORY PACKAGE...: brings real acquisition files that are not part of this repository from Debian's
# packages into DIRECTORY/PACKAGE, each with its copyright. What is there and complete stays; what comes is checked against
# real-files.sha256 and appears complete or not at all. The packages are not installed; their archives are kept in the user's
# cache, so that a fresh clone needs no network; who has no home directory keeps none.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
to=$(realpath -m -- "$1")
shift
archives=${XDG_CACHE_HOME:-${HOME:+$HOME/.cache}}
archives=${archives:+$archives/halvane-real-files}
work=

fail() { printf 'real-files: %s\n' "$*" >&2; exit 1; }

clean_up() { [ -z "$work" ] || rm -rf -- "$work"; }
trap clean_up EXIT

# What is wrong with the files of a package in a directory goes to standard output.
check() {
  (cd "$2" && grep "  $1/" "$here/real-files.sha256" | sha256sum --quiet --strict --check - 2>&1)
}

# unpack PACKAGE ARCHIVE TARGET: the files of the package that are used.
unpack() {
  local package=$1 root=$work/root target=$3/$1
  rm -rf -- "$root" "$target"
  mkdir -p "$root" "$target"
  dpkg-deb -x "$2" "$root" || return 1
  local doc=$root/usr/share/doc
  cp -p "$doc/$package/copyright" "$target/" || return 1
  case $package in
    openms-doc)
      cp -p "$doc/openms/examples/FRACTIONS/BSA1_F1.mzML" "$target/" ;;
    python-pymzml-doc)
      gunzip -c "$doc/python3-pymzml/tests/data/BSA1.mzML.gz" >"$target/BSA1.mzML" &&
        cp -p "$doc/python3-pymzml/tests/data/example_no_obo_version.mzML" "$target/example.mzML" ;;
    r-cran-maldiquantforeign)
      cp -pr "$root/usr/lib/R/site-library/MALDIquantForeign/exampledata" "$target/" ;;
  esac
}

# Brings the archive of a package into the working directory; with lists of packages of its own when the system's do not do.
download() {
  local options=(-q -o APT::Sandbox::User=root -o Acquire::Retries=5)
  (cd "$work" && apt-get download "${options[@]}" "$1") && return
  mkdir -p "$work/lists/partial" "$work/apt/archives/partial" || return 1
  options+=(-o Dir::State::Lists="$work/lists" -o Dir::Cache="$work/apt")
  (cd "$work" && apt-get update "${options[@]}" && apt-get download "${options[@]}" "$1")
}

# Puts a package's files in place when they are what they must be.
install_from() {
  unpack "$1" "$2" "$work/new" && check "$1" "$work/new" || return 1
  rm -rf -- "${to:?}/$1"
  mv -- "$work/new/$1" "$to/$1"
}

# bring PACKAGE: from the user's cache, or else from the registry.
bring() {
  local package=$1 kept
  for kept in "$archives/$package"_*.deb; do
    [ -z "$archives" ] || [ ! -e "$kept" ] || ! install_from "$package" "$kept" >"$work/log" 2>&1 || return 0
  done
  download "$package" >"$work/log" 2>&1 ||
    { cat "$work/log" >&2; fail "Debian's package $package could not be downloaded. Is there a network, and does 'apt-get download $package' work?"; }
  install_from "$package" "$work/$package"_*.deb >"$work/log" 2>&1 ||
    { cat "$work/log" >&2; fail "The files of $(basename "$work/$package"_*.deb) are not those that the tests know the figures of (packaging/real-files.sha256)."; }
  [ -z "$archives" ] || { mkdir -p "$archives" && mv -f -- "$work/$package"_*.deb "$archives/"; } || echo "real-files: $package is not kept in $archives." >&2
}

exec 9<"$here/real-files.sh"
flock 9
for package in "$@"; do
  grep -q "  $package/" "$here/real-files.sha256" || fail "no files of a package '$package' are used."
  [ ! -d "$to" ] || ! check "$package" "$to" >/dev/null || continue
  [ -n "$work" ] || { mkdir -p "$(dirname "$to")"; work=$(mktemp -d "$to.XXXXXX"); mkdir -p "$to"; }
  bring "$package"
done
