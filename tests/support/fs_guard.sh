#!/usr/bin/env bash
# Guard of the test suite: no test may create or remove anything in the
# machine's /, /etc, /var, /run or /tmp outside its own temporary folders.
#   fs_guard.sh snapshot STATE   before the first test (a CTest set-up)
#   fs_guard.sh check STATE      after the last test (a CTest clean-up)
# The check lists every path that appeared or vanished and fails.  Caches
# and package data that the system itself changes are left out.
# TARVD_FS_GUARD_IGNORE: an extended regular expression of paths to leave
# out as well (for a developer machine where other programs use /tmp).
set -euo pipefail

list() {
  {
    find / -mindepth 1 -maxdepth 1
    find /etc -mindepth 1 -maxdepth 4
    find /var -mindepth 1 -maxdepth 3 \
      \( -path /var/cache -o -path /var/lib/apt -o -path /var/lib/dpkg -o -path /var/log/journal \
         -o -path /var/lib/systemd -o -path /var/tmp \) -prune -o -print
    find /var/tmp /tmp -mindepth 1 -maxdepth 1
    find /run -mindepth 1 -maxdepth 2 \( -path /run/user -o -path /run/systemd \) -prune -o -print
  } 2>/dev/null | grep -Ev "${TARVD_FS_GUARD_IGNORE:-^$}" | LC_ALL=C sort -u
}

case "${1:-}" in
  snapshot)
    list >"$2"
    ;;
  check)
    [[ -f $2 ]] || { echo "fs_guard: no snapshot $2" >&2; exit 1; }
    now=$2.now
    list >"$now"
    added=$(LC_ALL=C comm -13 "$2" "$now")
    removed=$(LC_ALL=C comm -23 "$2" "$now")
    rm -f "$2" "$now"
    if [[ -n $added || -n $removed ]]; then
      [[ -z $added ]] || printf 'fs_guard: left behind by the tests:\n%s\n' "$added" >&2
      [[ -z $removed ]] || printf 'fs_guard: removed by the tests:\n%s\n' "$removed" >&2
      exit 1
    fi
    echo "fs_guard: nothing left outside the tests' own folders"
    ;;
  *)
    echo "usage: $0 snapshot|check STATE" >&2
    exit 2
    ;;
esac
