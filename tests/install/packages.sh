#!/usr/bin/env bash
# usage: packages.sh BUILD_DIR CONSUMER_DIR
# Makes the Debian packages of a build, unpacks them into an empty root and
# uses what is there: the tool, both services' command lines, a client built
# against the headers and run with the library of the root.
set -euo pipefail
build=$(cd "$1" && pwd)
consumer=$(cd "$2" && pwd)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail() { echo "packages: $*" >&2; exit 1; }

(cd "$build" && cpack -G DEB -B "$dir/debs") >"$dir/cpack.log" 2>&1 || {
  tail -n 40 "$dir/cpack.log" >&2
  fail "cpack failed"
}
for package in liborb-sdk3 liborb-sdk-dev orb-services orbctl; do
  deb=$(echo "$dir/debs/${package}"_*.deb)
  [ -f "$deb" ] || fail "$package was not made"
  dpkg-deb -x "$deb" "$dir/root"
  dpkg-deb -f "$deb" Depends >"$dir/$package.depends"
done

# A package that leaves out what it needs breaks on the next machine only.
for need in liborb-sdk3:libprotobuf-lite liborb-sdk3:android-liblog liborb-sdk3:libsystemd0 \
            liborb-sdk-dev:liborb-sdk3 orb-services:liborb-sdk3 orbctl:libprotobuf3; do
  grep -q "${need#*:}" "$dir/${need%%:*}.depends" ||
    fail "${need%%:*} does not depend on ${need#*:}: $(cat "$dir/${need%%:*}.depends")"
done

usr=$dir/root/usr
version=$("$usr/bin/orbctl" --version)
[ -f "$(echo "$dir"/debs/orbctl_"$version"_*.deb)" ] || fail "orbctl says it is $version"
"$usr/bin/orb-managerd" --version >/dev/null
"$usr/bin/orb-hald" --version >/dev/null
# What they load is the root's, by their own run paths.
if ldd "$usr/bin/orb-managerd" "$usr/bin/orb-hald" "$usr/bin/orbctl" | grep 'not found'; then
  fail "libraries are missing"
fi
loaded=$(ldd "$usr/bin/orb-managerd" | awk '/liborb_platform/ { print $3 }')
case $loaded in "$dir"/root/*) ;; *) fail "orb-managerd loads $loaded" ;; esac
for file in share/man/man1/orbctl.1 share/man/man8/orb-managerd.8 share/man/man8/orb-hald.8 \
            share/bash-completion/completions/orbctl lib/systemd/system/orb-managerd.service \
            lib/systemd/system/orb-hald.service share/dbus-1/system.d/orb.conf \
            lib/sysusers.d/orb.conf lib/tmpfiles.d/orb.conf; do
  [ -s "$usr/$file" ] || [ -s "$usr/$file.gz" ] || fail "$file is not in the packages"
done

lib=$(dirname "$(find "$usr" -name liborb_sdk.so)")
cc -std=c99 -o "$dir/consumer" "$consumer/consumer.c" \
  $(PKG_CONFIG_PATH=$lib/pkgconfig pkg-config --cflags --libs orb_sdk)
LD_LIBRARY_PATH=$lib "$dir/consumer"
echo "four packages, version $version"
