# Sourced by scripts that take long: names what is under way and ends with a table of how long each stage took.
#   stage NAME COMMAND...             runs it
#   begin_stage NAME COMMAND...       runs it in the background; what it prints is kept
#   await_stage NAME                  waits for it and shows what it printed; fails as it did
# shellcheck shell=bash

stage_table=()
stage_directory=$(mktemp -d)
declare -A stage_processes=()

stage_seconds() { # SINCE (microseconds)
    local elapsed=$((${EPOCHREALTIME/./} - $1))
    printf '%d.%d' $((elapsed / 1000000)) $((elapsed / 100000 % 10))
}

stage() { # NAME COMMAND...
    local name=$1 begin=${EPOCHREALTIME/./} status=0
    shift
    echo "== $name"
    "$@" || status=$?
    note_stage "$name" "$(stage_seconds "$begin")" "$status"
    return "$status"
}

begin_stage() { # NAME COMMAND...
    local name=$1 begin=${EPOCHREALTIME/./}
    shift
    echo "== $name (in the background)"
    # A group of its own, so that an early end takes all of it along.
    set -m
    (
        status=0
        "$@" >"$stage_directory/$name.output" 2>&1 </dev/null || status=$?
        stage_seconds "$begin" >"$stage_directory/$name.seconds"
        exit "$status"
    ) &
    stage_processes[$name]=$!
    set +m
}

await_stage() { # NAME
    local name=$1 status=0
    wait "${stage_processes[$name]}" || status=$?
    unset "stage_processes[$name]"
    echo "== $name"
    cat "$stage_directory/$name.output"
    note_stage "$name" "$(cat "$stage_directory/$name.seconds")" "$status"
    return "$status"
}

note_stage() { # NAME SECONDS STATUS
    local outcome=""
    [ "$3" -eq 0 ] || outcome="  failed"
    stage_table+=("$(printf '%8s s  %s%s' "$2" "$1" "$outcome")")
}

end_stages() {
    local process
    for process in "${stage_processes[@]}"; do kill -- "-$process" 2>/dev/null || true; done
    rm -rf "$stage_directory"
    [ ${#stage_table[@]} -gt 0 ] || return 0
    echo
    printf '%s\n' "${stage_table[@]}"
    printf '%8s s  in all\n' "$(stage_seconds "$stages_begin")"
}

stages_begin=${EPOCHREALTIME/./}
trap end_stages EXIT
