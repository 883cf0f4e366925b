# Sourced by scripts that take long: names what is under way and ends with a table of how long each stage took.
#   stage NAME COMMAND...
# shellcheck shell=bash

stage_table=()

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

end_stages() {
    [ ${#stage_table[@]} -gt 0 ] || return 0
    echo
    printf '%s\n' "${stage_table[@]}"
    printf '%8s s  in all\n' "$(stage_seconds "$stages_begin")"
}

stages_begin=${EPOCHREALTIME/./}
trap end_stages EXIT
