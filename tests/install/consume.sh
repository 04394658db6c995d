#!/usr/bin/env bash
# usage: consume.sh BUILD_DIR CONSUMER_DIR
# Installs a build into a directory of its own and builds the consumer against
# it: with CMake and with pkg-config, in C and in C++.
set -euo pipefail
build=$1
consumer=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

for component in sdk sdk_dev; do
  cmake --install "$build" --prefix "$dir/prefix" --component $component >/dev/null
done
lib=$(dirname "$(find "$dir/prefix" -name liborb_sdk.so)")

cmake -S "$consumer" -B "$dir/cmake" -DCMAKE_PREFIX_PATH="$dir/prefix" >/dev/null
cmake --build "$dir/cmake" >/dev/null
"$dir/cmake/consumer_c"
"$dir/cmake/consumer_cpp"

export PKG_CONFIG_PATH=$lib/pkgconfig
flags=$(pkg-config --cflags --libs orb_sdk)
cc -std=c99 -Wall -Wextra -Werror -o "$dir/c" "$consumer/consumer.c" $flags -Wl,-rpath,"$lib"
c++ -std=c++17 -Wall -Wextra -Werror -o "$dir/cpp" "$consumer/consumer.cpp" $flags \
  -Wl,-rpath,"$lib"
"$dir/c"
"$dir/cpp"
echo "consumers built and ran"
