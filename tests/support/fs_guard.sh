#!/usr/bin/env bash
# Guard of the test suite: no test may create or remove anything in the
# machine's /, /etc, /var, /run or /tmp outside its own temporary folders.
#   fs_guard.sh snapshot STATE              before the first test (a CTest set-up)
#   fs_guard.sh check STATE [CTEST BUILD]   after the last test (a CTest clean-up)
# The check lists every path that appeared or vanished and fails.  Given
# the ctest command and the build tree, it also fails when a test of the
# build does not require the guard's fixture: such a test could still run
# after the check.  Caches and package data that the system itself changes
# are left out, and so are the guard's own files (its temporary files go
# beside the snapshot).
# TARVD_FS_GUARD_IGNORE: an extended regular expression of paths to leave
# out as well (for a developer machine where other programs use /tmp).
set -euo pipefail

state=${2:-}
[[ -n $state ]] || { echo "usage: $0 snapshot|check STATE [CTEST BUILD]" >&2; exit 2; }
export TMPDIR=$(dirname "$state")

list() {
  {
    find / -mindepth 1 -maxdepth 1
    find /etc -mindepth 1 -maxdepth 4
    find /var -mindepth 1 -maxdepth 3 \
      \( -path /var/cache -o -path /var/lib/apt -o -path /var/lib/dpkg -o -path /var/log/journal \
         -o -path /var/lib/systemd -o -path /var/tmp \) -prune -o -print
    find /var/tmp /tmp -mindepth 1 -maxdepth 1
    find /run -mindepth 1 -maxdepth 2 \( -path /run/user -o -path /run/systemd \) -prune -o -print
  } 2>/dev/null | grep -Fvx -e "$state" -e "$state.now" | grep -Ev "${TARVD_FS_GUARD_IGNORE:-^$}" |
    LC_ALL=C sort -u -T "$TMPDIR"
}

# Names of the tests of the build that do not require the guard's fixture.
unguarded() {
  "$1" --test-dir "$2" --show-only=json-v1 | python3 -c '
import json, sys
for t in json.load(sys.stdin)["tests"]:
    props = {p["name"]: p["value"] for p in t.get("properties", [])}
    fixtures = props.get("FIXTURES_REQUIRED", []) + props.get("FIXTURES_SETUP", []) + props.get("FIXTURES_CLEANUP", [])
    # (Placeholders of test programs not built, as in a partial build, run nothing.)
    if "tarvd_fs_guard" not in fixtures and not t["name"].endswith("_NOT_BUILT"):
        print(t["name"])'
}

case "$1" in
  snapshot)
    list >"$state"
    ;;
  check)
    [[ -f $state ]] || { echo "fs_guard: no snapshot $state" >&2; exit 1; }
    list >"$state.now"
    added=$(LC_ALL=C comm -13 "$state" "$state.now")
    removed=$(LC_ALL=C comm -23 "$state" "$state.now")
    rm -f "$state" "$state.now"
    loose=
    if [[ $# -ge 4 ]] && command -v python3 >/dev/null; then
      loose=$(unguarded "$3" "$4")
    fi
    [[ -z $added ]] || printf 'fs_guard: left behind by the tests:\n%s\n' "$added" >&2
    [[ -z $removed ]] || printf 'fs_guard: removed by the tests:\n%s\n' "$removed" >&2
    [[ -z $loose ]] || printf 'fs_guard: tests that may run after this check (no FIXTURES_REQUIRED tarvd_fs_guard):\n%s\n' "$loose" >&2
    [[ -z $added && -z $removed && -z $loose ]] || exit 1
    echo "fs_guard: nothing left outside the tests' own folders"
    ;;
  *)
    echo "usage: $0 snapshot|check STATE [CTEST BUILD]" >&2
    exit 2
    ;;
esac
