# Sourced by the scripts of this folder: places, messages and what every one of them checks.
# shellcheck shell=bash

set -euo pipefail

# The same on every machine; Wine takes the encoding of file names from it.
export LC_ALL=C.UTF-8

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# Outside the checkout, so that a clean clone reuses the cross-built Qt.
CACHE=${RUVO_CACHE:-${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/ruvod}
# Debian's Python has Debian's pytest; another python3 earlier in PATH may not.
PYTHON=/usr/bin/python3

say() { printf '%s\n' "== $*"; }
die() { printf '%s\n' "error: $*" >&2; exit 1; }

# Runs a long command with its output in a file; shows that time passes, and the tail on failure.
# quietly WHAT LOGFILE COMMAND...
quietly() {
    local what=$1 log=$2 start=$SECONDS pid status=0
    shift 2
    say "$what"
    "$@" >"$log" 2>&1 &
    pid=$!
    # A command in the background does not see Ctrl+C.
    trap 'kill "$pid" 2>/dev/null; die "$what was interrupted"' INT TERM
    while kill -0 "$pid" 2>/dev/null; do
        sleep 1
        if (( (SECONDS - start) % 30 == 29 )); then
            printf '   ... %s: %d s\n' "$what" $((SECONDS - start))
        fi
    done
    wait "$pid" || status=$?
    trap - INT TERM
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        die "$what failed with status $status; the whole output is in $log"
    fi
}
