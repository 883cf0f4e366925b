# Sourced by scripts that take long: names what is under way and ends with a table of how long each stage took.
#   stage NAME COMMAND...
#   stage_beside NAME COMMAND...   for one that only computes: runs it beside the stages that follow, behind them
#   join_stage_beside              waits for it and shows what it printed
# shellcheck shell=bash

stage_table=() beside_process="" beside_output=""

stage_seconds() { # SINCE (microseconds)
    local elapsed=$((${EPOCHREALTIME/./} - $1))
    printf '%d.%d' $((elapsed / 1000000)) $((elapsed / 100000 % 10))
}

stage() { # NAME COMMAND...
    local name=$1 begin=${EPOCHREALTIME/./} status=0 outcome=""
    shift
    echo "== $name"
    "$@" || status=$?
    [ "$status" -eq 0 ] || outcome="  failed"
    stage_table+=("$(printf '%8s s  %s%s' "$(stage_seconds "$begin")" "$name" "$outcome")")
    return "$status"
}

stage_beside() { # NAME COMMAND...
    beside_name=$1 beside_begin=${EPOCHREALTIME/./} beside_output=$(mktemp)
    shift
    echo "== $beside_name, beside the following"
    # In a session of its own, so that what it has started can be ended with it.
    setsid nice -n 19 "$@" >"$beside_output" 2>&1 &
    beside_process=$!
}

join_stage_beside() {
    local status=0 outcome=""
    wait "$beside_process" || status=$?
    beside_process=
    echo "== $beside_name"
    cat "$beside_output"
    [ "$status" -eq 0 ] || outcome="  failed"
    stage_table+=("$(printf '%8s s  %s%s' "$(stage_seconds "$beside_begin")" "$beside_name, until it was waited for" "$outcome")")
    return "$status"
}

end_stages() {
    [ -z "$beside_process" ] || kill -- "-$beside_process" 2>/dev/null || true
    rm -f "$beside_output"
    [ ${#stage_table[@]} -gt 0 ] || return 0
    echo
    printf '%s\n' "${stage_table[@]}"
    printf '%8s s  in all\n' "$(stage_seconds "$stages_begin")"
}

stages_begin=${EPOCHREALTIME/./}
trap end_stages EXIT
