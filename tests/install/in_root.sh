#!/usr/bin/env bash
# usage: in_root.sh [booted]
# Run by clean_root.sh in the root where the packages of /check/debs belong, with
# the examples in /check: installs, uses and purges them as an administrator would;
# booted: on a system with systemd, else starting by itself what units would.
set -euo pipefail
booted=${1:-}
cd /check
fail() { echo "in_root: $*" >&2; tail -n 20 /check/*.log >&2; exit 1; }
await() {
  local tries
  for tries in $(seq 200); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.05
  done
  fail "gave up waiting for: $*"
}
pids=()
nobody=(setpriv --reuid nobody --regid nogroup --clear-groups)
start_bus() {
  mkdir -p /run/dbus
  dbus-daemon --system --nofork --nopidfile 2>/check/bus.log &
  bus=$!
  await test -S /run/dbus/system_bus_socket
}
# Starts what a unit starts, as the user that it names.
start_unit() {
  [ -z "$booted" ] || { systemctl enable --now "$1"; return; }
  local unit=/usr/lib/systemd/system/$1.service user key value
  (
    while IFS='=' read -r key value; do export "$key=$value"; done \
      < <(sed -n 's/^Environment=//p' "$unit")
    user=$(sed -n 's/^User=//p' "$unit")
    group=$(sed -n 's/^Group=//p' "$unit")
    eval "exec setpriv --reuid $user --regid $group --init-groups $(sed -n 's/^ExecStart=//p' "$unit")"
  ) 2>"/check/$1.log" &
  pids+=($!)
}

# The bus runs already, where there is one: it must take notice of the new policy.
[ -n "$booted" ] && bus=systemd
[ -z "${bus:-}" ] && command -v dbus-daemon >/dev/null && start_bus
dpkg -i debs/*.deb >dpkg.log 2>&1 || apt-get install -y -f --no-install-recommends >apt.log 2>&1 ||
  fail "cannot be installed"
{ command -v cc && command -v pkg-config; } >/dev/null ||
  apt-get install -y --no-install-recommends gcc libc6-dev pkg-config >apt.log 2>&1
[ -n "${bus:-}" ] || start_bus
dpkg -i debs/*.deb >dpkg.log 2>&1 || fail "cannot be installed a second time"
dpkg --audit | grep . && fail "dpkg finds fault"
while read -r folder access; do
  [ "$(stat -c '%U:%G %a' "$folder")" = "$access" ] || fail "$folder: $(stat -c '%U:%G %a' "$folder")"
done <<'ACCESS'
/var/lib/orb-managerd orb:orb 700
/var/spool/orb orb-hal:orb 750
ACCESS
for file in man/man1/orbctl.1 man/man8/orb-managerd.8 man/man8/orb-hald.8 \
            doc/liborb-sdk3/changelog doc/orbctl/changelog; do
  gzip -t /usr/share/$file.gz
done
[ -s /usr/share/bash-completion/completions/orbctl ] || fail "no completion"
if command -v systemd-analyze >/dev/null; then
  systemd-analyze verify --man=no orb-hald.service orb-managerd.service 2>verify.log || fail "units"
fi
[ "$(dpkg-query -W -f='${Version}' orbctl)" = "$(orbctl --version)" ] || fail "version"

orbctl client list >none.log 2>&1 && fail "a manager before the services run"
start_unit orb-hald
start_unit orb-managerd
[ -z "$booted" ] || orbctl client list || fail "ready before the manager can be called"
await orbctl client list

cc -std=gnu99 -Wall -Werror -o client orb_sysmon.c sysmon_proc.c $(pkg-config --cflags --libs orb_sdk)
install -d -o nobody data
# Whom the bus lets be a client.
group=orb-client
if [ -n "$booted" ]; then
  systemd-run --quiet --unit=client -p User=nobody -p Group="$group" \
    -p StandardError=file:/check/client.log -p RemainAfterExit=yes \
    /check/client --data-dir /check/data/
else
  (exec setpriv --reuid nobody --regid "$group" --clear-groups ./client --data-dir /check/data/) \
    2>client.log &
  pids+=($!)
fi
listed() { orbctl client list | grep -q "orb-sysmon${1:-}"; }
await listed
setpriv --reuid nobody --regid $group --clear-groups orbctl client list >refused.log 2>&1 &&
  fail "clients may list clients"
"${nobody[@]}" orbctl client list >refused.log 2>&1 && fail "anybody may list clients"

cat >c.txtpb <<'END'
threshold_size: 1000
kpi_cfgs { kpi_id: 1001 type: KPI_NUMERIC sub_type: COUNTER c_cfg {} sample_window: 5 }
lic_sn_kpi_maps { lic_sn: 42 encrypt: true kpi_ids: 1001 }
END
orbctl key new owner
orbctl campaign lint c.txtpb
orbctl campaign start orb-sysmon c.txtpb --id 7 --lic 42:owner/public.pem:gcm
windows() { grep -c 'Serialize(), numSamples=5' client.log; }
more_windows() { [ "$(windows)" -gt "$1" ]; }
await more_windows 0
if [ -n "$booted" ]; then
  for unit in orb-hald orb-managerd; do
    grep -qx 'Seccomp:.2' "/proc/$(systemctl show -P MainPID $unit)/status" || fail "$unit: no filter"
  done
  before=$(systemctl show -P MainPID orb-hald orb-managerd)
  dpkg -i debs/liborb-sdk3*.deb debs/orb-services*.deb >dpkg.log 2>&1 || fail "no upgrade"
  [ "$before" != "$(systemctl show -P MainPID orb-hald orb-managerd)" ] || fail "still the old ones"
  await listed '.* 7 running'
  await more_windows "$(windows)"  # What went out while both were away is lost.
fi
orbctl campaign stop orb-sysmon
orbctl decode /var/spool/orb --key owner/private.pem >decoded.log || fail "decode"
grep -q '1001  counter' decoded.log || fail "no record of KPI 1001"

if [ -n "$booted" ]; then
  systemctl stop client
  [ "$(systemctl show -P Result client)" = success ] || fail "the client failed"
fi
for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
  kill "${pids[i]}"
  wait "${pids[i]}" || fail "the ${i}. of HAL, manager and client ended with $?"
done
dpkg -r liborb-sdk-dev orbctl orb-services liborb-sdk3 >dpkg.log 2>&1 || fail "cannot be removed"
if [ -n "$booted" ]; then
  systemctl is-active -q orb-hald orb-managerd && fail "services outlive their package"
fi
[ -n "$(find /var/spool/orb -name '*.orb')" ] || fail "removal takes the uploads with it"
dpkg -P liborb-sdk-dev orbctl orb-services liborb-sdk3 >dpkg.log 2>&1 || fail "cannot be purged"
ldconfig -p | grep liborb && fail "the loader still knows the library"
[ -n "$booted" ] || kill "$bus"
echo "all well"
