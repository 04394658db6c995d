#!/usr/bin/env bash
# usage: clean_root.sh BUILD_OR_DEB_DIR SOURCE_DIR [ROOT [boot]]
#
# Installs the Debian packages into a system that has none of them, runs a
# campaign there (in_root.sh) and purges them again. ROOT is a Debian 12 system
# as debootstrap makes it; it stays as it is, missing packages come from its
# mirror. Without ROOT it is this machine's system without the tree: quick, and
# what is left behind shows, but a forgotten dependency may be there by chance.
# With "boot", systemd runs as the first process of ROOT, and the services as units.
# Root and overlay mounts, or exit 77.
set -euo pipefail
from=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
base=$(cd "${3:-/}" && pwd)
boot=${4:-}
fail() { echo "clean_root: $*" >&2; exit 1; }

if [ -z "${ORB_DIR:-}" ]; then
  [ "$(id -u)" = 0 ] && unshare -mpf --mount-proc true 2>/dev/null ||
    { echo "skipped: wants root and namespaces of its own"; exit 77; }
  ORB_DIR=$(mktemp -d)
  export ORB_DIR
  trap 'rmdir "$ORB_DIR"' EXIT
  unshare -mpf --kill-child --mount-proc "$0" "$@"  # Takes mounts and processes with it.
  exit
fi

dir=$ORB_DIR
mount -t tmpfs tmpfs "$dir"
mkdir "$dir/upper" "$dir/work" "$dir/root" "$dir/debs"
root=$dir/root
mount -t overlay overlay -o "lowerdir=$base,upperdir=$dir/upper,workdir=$dir/work" "$root" ||
  { echo "skipped: wants overlay mounts"; exit 77; }

if [ -f "$from/CPackConfig.cmake" ]; then
  (cd "$from" && cpack -G DEB -B "$dir/debs") >"$dir/cpack.log" 2>&1 ||
    { tail -n 40 "$dir/cpack.log" >&2; fail "cpack failed"; }
  from=$dir/debs
fi
# A package that leaves out what it needs breaks on the next machine only.
for need in liborb-sdk3:libprotobuf-lite liborb-sdk3:android-liblog liborb-sdk3:libsystemd0 \
            liborb-sdk-dev:liborb-sdk3 orb-services:liborb-sdk3 orbctl:libprotobuf3; do
  depends=$(dpkg-deb -f "$from/${need%%:*}"_*.deb Depends)
  [[ $depends == *${need#*:}* ]] || fail "${need%%:*} does not depend on ${need#*:}: $depends"
done

mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
mkdir -p "$root/check"
for folder in run tmp check; do mount -t tmpfs tmpfs "$root/$folder"; done
# A tree below one of these is out of sight already.
if [ "$base" = / ] && [ -d "$root$source" ]; then mount -t tmpfs tmpfs "$root$source"; fi
mkdir "$root/check/debs"
cp "$from"/*.deb "$root/check/debs"
cp "$source"/examples/*.[ch] "$source/tests/install/in_root.sh" "$root/check"
cp /etc/resolv.conf "$root/run/resolv.conf"
[ "$base" = / ] || cp /etc/resolv.conf "$root/etc/resolv.conf"
printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"  # Nothing starts by itself.
chmod +x "$root/usr/sbin/policy-rc.d"
in_root() {
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive chroot "$root" "$@"
}
# Becomes systemd, in namespaces of its own, on $root as the root.
be_systemd() {
  mount --make-rprivate /
  umount -l "$root/dev" "$root/proc" "$root/run"
  mount -t proc proc "$root/proc"
  mount -t sysfs sysfs "$root/sys"
  mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
  mount -t tmpfs tmpfs "$root/run"
  mount -t tmpfs -o mode=755 tmpfs "$root/dev"
  local node
  for node in null zero full random urandom tty; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
  done
  mkdir "$root/dev/pts" "$root/dev/shm" "$root/old"
  mount -t devpts -o newinstance,ptmxmode=666 devpts "$root/dev/pts"
  ln -s pts/ptmx "$root/dev/ptmx"
  ln -s /proc/self/fd "$root/dev/fd"
  touch "$root/dev/console"
  cd "$root"
  pivot_root . old
  umount -l /old
  exec env -i container=lxc PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --system
}
if [ -z "$boot" ]; then
  in_root bash /check/in_root.sh || fail "exit $?"
else
  in_root apt-get install -y --no-install-recommends systemd dbus gcc libc6-dev pkg-config \
    >"$dir/apt.log" 2>&1 || { tail "$dir/apt.log" >&2; fail "no systemd"; }
  rm "$root/usr/sbin/policy-rc.d"
  cat >"$root/etc/systemd/system/check.service" <<'END'
[Service]
ExecStart=/bin/bash /check/in_root.sh booted
ExecStopPost=/bin/systemctl poweroff --force --force
StandardOutput=append:/check/check.log
StandardError=inherit
END
  mkdir -p "$root/etc/systemd/system/multi-user.target.wants"
  ln -s ../check.service "$root/etc/systemd/system/multi-user.target.wants"
  export -f be_systemd
  root=$root timeout 200 unshare -mpfiuC --kill-child bash -euc be_systemd >"$dir/boot.log" 2>&1 || true
  tail -n 40 "$root/check/check.log"
  grep -qx "all well" "$root/check/check.log" || { tail "$dir/boot.log" >&2; fail "as units"; }
fi

# All that was written is in the upper layer. Accounts and caches may stay.
cd "$dir/upper"
left=$(find . \( -name '*orb*' -o ! -type d \) |
  grep -Ev '^\./(var/(cache|log|lib/(dpkg|apt))|usr/sbin/policy-rc\.d|etc/ld\.so\.cache)' |
  grep -Ev '^\./(etc/(passwd|group|shadow|gshadow|subuid|subgid)-?|etc/\.pwd\.lock|(etc|var/lib/dbus)/machine-id)$' |
  if [ "$base" = / ]; then cat; else grep -i orb; fi || true)
[ -z "$left" ] || fail "left behind: $left"
echo "installed, used and purged below $base"
