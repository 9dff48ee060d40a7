#!/bin/sh
# cmake --install of a build tree into a staging directory (DESTDIR): the
# installed quarto.conf must name the feature files where this prefix put them,
# and the feature files the progress window program where it was installed.
#   prefix_test.sh BUILD_DIR
set -eu
BUILD="$1"
PREFIX="$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$BUILD/CMakeCache.txt")"
STAGE="$(mktemp -d)"
trap 'rm -rf "$STAGE"' EXIT
DESTDIR="$STAGE" cmake --install "$BUILD" >/dev/null

fail=0
bad() { echo "FAIL: $*"; fail=1; }
conf="$(find "$STAGE" -path '*/sane.d/quarto.conf')"
[ -n "$conf" ] || { echo "FAIL: no quarto.conf installed"; exit 1; }
[ -f "$(dirname "$conf")/dll.d/quarto" ] || bad "no dll.d/quarto beside quarto.conf"
ls "$STAGE$PREFIX"/lib*/sane/libsane-quarto.so.1 "$STAGE$PREFIX"/share/man/man5/sane-quarto.5 \
  "$STAGE"/lib/udev/rules.d/55-quarto.rules >/dev/null || fail=1

models="$(awk '!/^[ \t]*#/ && !/=/ && NF >= 5 { print $4 }' "$conf")"
[ -n "$models" ] || bad "quarto.conf names no feature file"
for f in $models; do
  case "$f" in "$PREFIX"/share/sane/quarto/*) ;; *) bad "quarto.conf names $f, outside $PREFIX/share/sane/quarto" ;; esac
  [ -f "$STAGE$f" ] || bad "$f is named by quarto.conf but not installed"
done
for f in "$STAGE$PREFIX"/share/sane/quarto/*.conf; do
  prog="$(sed -n 's/^DISPLAYBINARY=//p' "$f")"
  [ -z "$prog" ] || [ -x "$STAGE$prog" ] || bad "$(basename "$f") names $prog, not installed"
done
[ $fail -eq 0 ] && echo "installed under $PREFIX: quarto.conf names $(echo $models | wc -w) installed feature files"
exit $fail
