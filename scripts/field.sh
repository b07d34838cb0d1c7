# shellcheck shell=bash
# For scripts that start simulated devices and the daemon: a folder of their own, and the end of all
# that was started. To be sourced.

folder=$(mktemp -d)
daemon=""
simulator=""
stop() {
  for process in $daemon $simulator; do
    kill "$process" 2>/dev/null || continue
    wait "$process" || true
  done
  rm -rf "$folder"
}
trap stop EXIT

# Waits, for at most 5 s, until a command succeeds.
await() {
  for _ in $(seq 100); do
    if "$@" >/dev/null 2>&1; then return; fi
    sleep 0.05
  done
  echo "${0##*/}: no success of: $*" >&2
  exit 1
}

say() { printf '\n== %s\n' "$*"; }
