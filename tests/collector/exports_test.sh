#!/bin/sh
# usage: exports_test.sh LIBRARY MAP: the library exports the names of the map and no others.
set -eu
exported=$(mktemp)
wanted=$(mktemp)
trap 'rm -f "$exported" "$wanted"' EXIT
nm -D --defined-only "$1" | awk '{ print $NF }' | LC_ALL=C sort > "$exported"
sed -n '/global:/,/local:/s/^ *\([A-Za-z_0-9]*\);$/\1/p' "$2" | LC_ALL=C sort > "$wanted"
test "$(wc -l < "$wanted")" -eq 39
diff "$wanted" "$exported"
readelf -d "$1" | grep -q 'SONAME.*\[liborb_sdk\.so\.3\]'
