#!/usr/bin/env bash
# usage: host_schema.sh BUILD_DIR HOST_CLIENT
# Runs a campaign on a host whose own protobuf messages are called like the
# library's; both must keep working.
set -euo pipefail
build=$1
host=$2
dir=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$dir"' EXIT
trap 'cat "$dir"/*.log >&2' ERR
ctl() { "$build/tools/orbctl/orbctl" "$@"; }
await() {
  local tries
  for tries in $(seq 200); do
    "$@" >/dev/null 2>&1 && return
    sleep 0.05
  done
  echo "gave up waiting for: $*" >&2
  return 1
}
registered() { ctl client list | grep -q host; }
logged() { grep -q 'Serialize(), numSamples=10' "$dir/host.log"; }

export ORB_BUS_ADDRESS=unix:path=$dir/bus
dbus-daemon --session --nofork --nopidfile --address="$ORB_BUS_ADDRESS" 2>"$dir/bus.log" &
await test -S "$dir/bus"
"$build/services/orb-hald" --spool "$dir/spool" 2>"$dir/hald.log" &
"$build/services/orb-managerd" --state "$dir/state" 2>"$dir/managerd.log" &
await ctl client list
mkdir "$dir/data"
"$host" "$dir/data/" 2>"$dir/host.log" &
client=$!
await registered
cat >"$dir/campaign.txtpb" <<'EOF'
threshold_size: 1000
kpi_cfgs { kpi_id: 1 type: KPI_NUMERIC sub_type: COUNTER sample_window: 10 }
lic_sn_kpi_maps { lic_sn: 42 kpi_ids: 1 }
EOF
ctl campaign start host "$dir/campaign.txtpb"
await logged
ctl campaign stop host
kill "$client"
wait "$client"
ctl decode "$dir/spool" | grep -E '1  counter .* 10  10$' | head -n 3
