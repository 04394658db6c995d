#!/bin/bash
# usage: completion_test.sh COMPLETION
# What is offered where a client or an owner belongs. Clients choose their names, so none of
# them is expanded.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat > "$work/orbctl" <<EOF
#!/bin/sh
cat <<'NAMES'
{"name":"radio-1","id":1,"lic_sns":[42,18446744073709551615],"stopped_lic_sns":[7]}
{"name":"\$(touch $work/ran)","id":2}
{"name":"a\\",\\"name\\":\\"\$(touch $work/ran)","id":3}
NAMES
EOF
chmod +x "$work/orbctl"
PATH=$work:$PATH
_init_completion() {
  words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD-1]}
}
_filedir() { COMPREPLY=(a-file); }
. "$1"
offers() {  # WANT WORD...: completes an empty word after these.
  local want=$1
  COMP_WORDS=(orbctl "${@:2}" "") COMP_CWORD=$# COMPREPLY=()
  _orbctl || true
  [ "${COMPREPLY[*]}" = "$want" ] || { echo "${*:2}: offers ${COMPREPLY[*]}"; exit 1; }
}
offers radio-1 client dump
offers radio-1 campaign start --id 7
offers radio-1 campaign start --lic 42:a.pem:gcm --json
offers a-file campaign start --id 7 radio-1
offers "42 18446744073709551615" campaign lic-stop radio-1
offers "" campaign lic-stop radio-2
[ ! -e "$work/ran" ] || { echo "a client's name was run"; exit 1; }
