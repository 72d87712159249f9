#!/usr/bin/env bash
# The bash completion offers the tool's command words (every word of the
# command list in src/cli/commands.hpp, and no other), the trace levels after
# -v, and the loader's options.
set -u
root=$1
. "$root/packaging/rv_db_update.bash-completion"
fail=0
expect() {  # FUNCTION EXPECTED WORDS...
    local function=$1 expected=$2
    shift 2
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    "$function"
    local got
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' ')
    if [[ "$got" != "$expected " ]]; then
        echo "completion of '$*': got '$got', expected '$expected '" >&2
        fail=1
    fi
}
words=$(sed -n 's/.*kCommandList = "\([^"]*\)".*/\1/p' "$root/src/cli/commands.hpp" | tr '|' '\n')
[[ -n "$words" ]] || { echo "no command list in src/cli/commands.hpp" >&2; exit 1; }
expect _rv_db_update "$(printf '%s\n' $words -h | sort | tr '\n' ' ' | sed 's/ $//')" rv_db_update ''
expect _rv_db_update "db_backup db_restore" rv_db_update db_
expect _rv_db_update "0 1 2" rv_db_update update -v ''
expect _rv_db_update "-v" rv_db_update update 1.6.3.20 ''
expect _oaisql "-b -c -e -g -p -q -r -s" oaisql ''
exit $fail
