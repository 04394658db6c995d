#!/bin/bash
# usage: completion_test.sh COMPLETION
# The completion of client names, which clients choose: none of them is expanded.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat > "$work/orbctl" <<EOF
#!/bin/sh
cat <<'NAMES'
{"name":"radio-1","id":1}
{"name":"\$(touch $work/ran)","id":2}
{"name":"a\\",\\"name\\":\\"\$(touch $work/ran)","id":3}
NAMES
EOF
chmod +x "$work/orbctl"
PATH=$work:$PATH
_init_completion() {
  words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]} prev=dump
}
. "$1"
COMP_WORDS=(orbctl client dump "") COMP_CWORD=3
_orbctl
[ "${COMPREPLY[*]}" = radio-1 ] || { echo "completed: ${COMPREPLY[*]}"; exit 1; }
[ ! -e "$work/ran" ] || { echo "a client's name was run"; exit 1; }
