#!/bin/sh
# usage: exports_test.sh LIBRARY MAP INCLUDE: the library exports what the headers
# declare for it and nothing else, and the map says the same.
set -eu
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
nm -D --defined-only "$1" | awk '{ print $NF }' | LC_ALL=C sort > "$dir/exported"
sed -n '/global:/,/local:/s/^ *\([A-Za-z_0-9]*\);$/\1/p' "$2" | LC_ALL=C sort > "$dir/mapped"
for header in "$3"/*.h; do cc -E -P "$header"; done | tr '\n' ' ' |
  grep -o '__attribute__((visibility("default")))[^;]*;' |
  sed 's/^__attribute__((visibility("default")))//; s/[[(;].*//; s/.*[ *]//' |
  LC_ALL=C sort -u > "$dir/declared"
test "$(wc -l < "$dir/declared")" -gt 0
diff "$dir/declared" "$dir/mapped"
diff "$dir/mapped" "$dir/exported"
readelf -d "$1" | grep -q 'SONAME.*\[liborb_sdk\.so\.3\]'
